// The library's 16-thread figure through its exported functions: threads
// calling Redfish_GetPowerState on host keys of their own, next to h2load
// -c1 -m16 on the same proxy path. Run it through run-api-bench, which starts
// nginx and chooses where the library's log goes.
//
//   api_bench [THREADS [KEYS [ROUNDS]]]
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

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

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

}  // namespace

int main(int argc, char** argv) {
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
