// Other callers' throughput while one caller waits for a slow BMC read, as
// the proxy drains connections (or not). Threads call Redfish_GetPowerState
// on host keys of their own for a fixed time while, with SLOW 1, one more
// thread reads a resource the proxy answers only after 6 s, over and over.
// Run it through run-goaway-bench, which starts nginx with and without a
// GOAWAY every 1,000 requests and compares the runs.
//
//   goaway_bench [THREADS [KEYS [SECONDS [SLOW]]]]
//
// Prints one line: the others' calls per second, their failures and
// time-outs (10003), and the slow reads that succeeded.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bmcredfish.h"

using Clock = std::chrono::steady_clock;

namespace {

constexpr char kUser[] = "admin";
constexpr char kPassword[] = "secret";
constexpr int kTimeout = 10003;

// The first key names the BMC the route document names, so no PUT is made.
std::string Key(int i) { return i == 0 ? "127.0.42.1" : "bmc-" + std::to_string(i); }

}  // namespace

int main(int argc, char** argv) {
  const int threads = argc > 1 ? std::atoi(argv[1]) : 16;
  const int keys = argc > 2 ? std::atoi(argv[2]) : 16;
  const double seconds = argc > 3 ? std::atof(argv[3]) : 8;
  const bool withSlow = argc > 4 ? std::atoi(argv[4]) != 0 : true;
  FeatureState_Init();
  *GetFeatureState_Slow("REDFISH") = 1;
  for (int k = 0; k < keys; ++k) {  // discovery, once per key
    bool on = false;
    if (const int rc = Redfish_GetPowerState(kUser, kPassword, Key(k).c_str(), 5000, &on)) {
      std::printf("goaway_bench: warm-up call for %s failed with %d\n", Key(k).c_str(), rc);
      return 1;
    }
  }

  std::atomic<bool> stop{false};
  std::atomic<int> calls{0}, failed{0}, timeouts{0}, slowOk{0}, slowCalls{0};
  // The slow reader has a key of its own: a key's calls are serialised.
  std::thread slow([&] {
    const std::string key = Key(keys);
    while (withSlow && !stop) {
      char* json = nullptr;
      const int rc =
          Redfish_GetResource(kUser, kPassword, key.c_str(), "/redfish/v1/Slow", 10000, &json);
      Redfish_FreeText(json);
      ++slowCalls;
      slowOk += rc == 0;
    }
  });
  if (withSlow) std::this_thread::sleep_for(std::chrono::milliseconds(200));  // in flight
  std::vector<std::thread> pool;
  std::atomic<int> ready{0};
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      const std::string key = Key(t % keys);
      for (++ready; ready < threads;) std::this_thread::yield();
      while (!stop) {
        bool on = false;
        const int rc = Redfish_GetPowerState(kUser, kPassword, key.c_str(), 4000, &on);
        ++calls;
        failed += rc != 0 || !on;
        timeouts += rc == kTimeout;
      }
    });
  }
  while (ready < threads) std::this_thread::yield();
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (auto& t : pool) t.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  slow.join();
  std::printf("rate %.0f calls %d failed %d timeouts %d slow_ok %d slow %d\n", calls / elapsed,
              calls.load(), failed.load(), timeouts.load(), slowOk.load(), slowCalls.load());
  return 0;
}
