// The library's 16-thread figures through its exported functions. Run it
// through run-api-bench, which starts nginx and chooses where the library's
// log goes.
//
//   api_bench [THREADS [KEYS [ROUNDS]]]   threads calling Redfish_GetPowerState
//                                         on host keys of their own, next to
//                                         h2load -c1 -m16 on the same path
//   api_bench one-key [ROUNDS]            one thread, then 16 threads on ONE
//                                         key: how long a call waits its turn
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench/h2load.h"
#include "bmcredfish.h"

using Clock = std::chrono::steady_clock;

namespace {

constexpr char kUser[] = "admin";
constexpr char kPassword[] = "secret";
constexpr char kPath[] = "http://127.0.0.1:80/bmc/redfish/v1/Systems/1/?$select=PowerState";

double Percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<size_t>(p * v.size()))];
}

double Median(std::vector<double> v) { return Percentile(std::move(v), 0.5); }

// The first key names the BMC the route document names, so no PUT is made.
std::string Key(int i) { return i == 0 ? "127.0.42.1" : "bmc-" + std::to_string(i); }

double ApiRate(int threads, int keys, int each) {
  std::atomic<int> ready{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> pool;
  const auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      const std::string key = Key(t % keys);
      for (++ready; ready < threads;) std::this_thread::yield();
      for (int i = 0; i < each; ++i) {
        bool on = false;
        if (Redfish_GetPowerState(kUser, kPassword, key.c_str(), 5000, &on) != 0 || !on) {
          ++failures;
        }
      }
    });
  }
  for (auto& t : pool) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (failures > 0) std::fprintf(stdout, "api_bench: %d calls failed\n", failures.load());
  return threads * each / seconds;
}

// One round of `threads` threads making `each` calls on the one key: every
// call's latency (µs) and the calls per second of the whole round.
struct OneKeyRound {
  std::vector<double> latencies;
  double rate = 0;
};

OneKeyRound OneKey(int threads, int each) {
  std::atomic<int> ready{0};
  std::atomic<int> failures{0};
  std::vector<std::vector<double>> perThread(threads);
  std::vector<std::thread> pool;
  const auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      const std::string key = Key(0);
      std::vector<double>& mine = perThread[t];
      mine.reserve(each);
      for (++ready; ready < threads;) std::this_thread::yield();
      for (int i = 0; i < each; ++i) {
        bool on = false;
        const auto begin = Clock::now();
        const int rc = Redfish_GetPowerState(kUser, kPassword, key.c_str(), 5000, &on);
        mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        if (rc != 0 || !on) ++failures;
      }
    });
  }
  for (auto& t : pool) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (failures > 0) std::fprintf(stdout, "api_bench: %d calls failed\n", failures.load());
  OneKeyRound round;
  for (const auto& mine : perThread) {
    round.latencies.insert(round.latencies.end(), mine.begin(), mine.end());
  }
  round.rate = threads * each / seconds;
  return round;
}

// Calls on one host key take their turns on its connection. Served first
// come, first served, a call waits at most for the calls already queued, so
// its p99 stays near threads × one call's p50 (the FIFO bound); one that lets
// later callers pass can wait much longer. Rounds of one thread and of 16
// alternate; each figure is the median over rounds of its own per-round
// value, the ratios are taken round by round.
int OneKeyFigures(int rounds) {
  constexpr int kThreads = 16;
  constexpr int kAlone = 4000;
  constexpr int kEach = 500;
  OneKey(kThreads, 100);
  std::vector<double> p50s, p99s, rates, p50n, p99n, ratesN, waitRatios, rateRatios;
  for (int r = 0; r < rounds; ++r) {
    const OneKeyRound alone = OneKey(1, kAlone);
    const OneKeyRound shared = OneKey(kThreads, kEach);
    p50s.push_back(Percentile(alone.latencies, 0.5));
    p99s.push_back(Percentile(alone.latencies, 0.99));
    rates.push_back(alone.rate);
    p50n.push_back(Percentile(shared.latencies, 0.5));
    p99n.push_back(Percentile(shared.latencies, 0.99));
    ratesN.push_back(shared.rate);
    waitRatios.push_back(p99n.back() / (kThreads * p50s.back()));
    rateRatios.push_back(shared.rate / alone.rate);
  }
  const double bound = kThreads * Median(p50s);
  const double waitRatio = Median(waitRatios), rateRatio = Median(rateRatios);
  std::printf("%-34s %9s %9s %11s\n", "Redfish_GetPowerState, one key", "p50", "p99", "calls/s");
  std::printf("%-34s %6.1f µs %6.1f µs %11.0f\n", "1 thread", Median(p50s), Median(p99s),
              Median(rates));
  std::printf("%-34s %6.1f µs %6.1f µs %11.0f\n", "16 threads", Median(p50n), Median(p99n),
              Median(ratesN));
  std::printf("FIFO bound (16 x 1-thread p50)     %6.1f µs\n", bound);
  std::printf("16-thread p99 / FIFO bound         %6.2fx  <= 2.00  %s\n", waitRatio,
              waitRatio <= 2.0 ? "met" : "MISSED");
  std::printf("16-thread / 1-thread throughput    %6.2fx  >= 0.85  %s\n", rateRatio,
              rateRatio >= 0.85 ? "met" : "MISSED");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "one-key") {
    FeatureState_Init();
    *GetFeatureState_Slow("REDFISH") = 1;
    bool on = false;
    if (const int rc = Redfish_GetPowerState(kUser, kPassword, Key(0).c_str(), 5000, &on)) {
      std::fprintf(stdout, "api_bench: warm-up call failed with %d\n", rc);
      return 1;
    }
    return OneKeyFigures(argc > 2 ? std::atoi(argv[2]) : 5);
  }
  const int threads = argc > 1 ? std::atoi(argv[1]) : 16;
  const int keys = argc > 2 ? std::atoi(argv[2]) : 16;
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
  FeatureState_Init();
  *GetFeatureState_Slow("REDFISH") = 1;
  for (int k = 0; k < keys; ++k) {  // discovery, once per key
    bool on = false;
    const int rc = Redfish_GetPowerState(kUser, kPassword, Key(k).c_str(), 5000, &on);
    if (rc != 0) {
      std::fprintf(stdout, "api_bench: warm-up call for %s failed with %d\n", Key(k).c_str(), rc);
      return 1;
    }
  }
  ApiRate(threads, keys, 500);
  // API_BENCH_YARDSTICK=0: the library's rounds alone, for profiling them.
  const char* yardstick = std::getenv("API_BENCH_YARDSTICK");
  const bool withH2load = yardstick == nullptr || std::string(yardstick) != "0";
  // Rounds of the library and of h2load alternate; each round's ratio is
  // taken against the h2load round next to it, so that a machine whose speed
  // drifts (other guests, other work) is compared with itself.
  std::vector<double> ours, theirs, ratios;
  for (int r = 0; r < rounds; ++r) {
    ours.push_back(ApiRate(threads, keys, 2000));
    if (!withH2load) continue;
    // The same request the library sends: its credentials and Accept header.
    theirs.push_back(
        H2load(kPath, threads, threads * 2000,
               "-H 'Authorization: Basic YWRtaW46c2VjcmV0' -H 'Accept: application/json'"));
    if (theirs.back() > 0) ratios.push_back(ours.back() / theirs.back());
  }
  const double rate = Median(ours), h2 = Median(theirs), ratio = Median(ratios);
  std::printf("%-44s %10.0f %10.0f req/s %6.2fx  >= 0.70  %s\n",
              (std::to_string(threads) + " threads x " + std::to_string(keys) +
               " keys, Redfish_GetPowerState")
                  .c_str(),
              rate, h2, ratio, ratio >= 0.70 ? "met" : "MISSED");
  return 0;
}
