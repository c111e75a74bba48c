// Latency and throughput of the HTTP client's pool next to a plain libcurl
// easy handle reused for h2c. Prints figures; run it through run-http-bench.
//
//   http_bench [HOST PORT TARGET REQUESTS THREADS [SECTIONS]]
// SECTIONS picks from "handoff,easy,pool1,poolN,callbacks" (all by default).
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/http/connection_pool.h"

using namespace Tessel;
using namespace Tessel::Http;
using Clock = std::chrono::steady_clock;

namespace {

struct Figures {
  double meanUs, p50Us, p99Us, perSecond;
};

Figures Summarise(std::vector<double> us, double seconds) {
  std::sort(us.begin(), us.end());
  double sum = 0;
  for (double v : us) sum += v;
  return {sum / us.size(), us[us.size() / 2], us[us.size() * 99 / 100], us.size() / seconds};
}

void Print(const char* what, const Figures& f) {
  std::printf("%-44s %9.1f %9.1f %9.1f %11.0f\n", what, f.meanUs, f.p50Us, f.p99Us, f.perSecond);
}

double Since(Clock::time_point t) {
  return std::chrono::duration<double, std::micro>(Clock::now() - t).count();
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

// One thread, one request at a time, over one handle reused for h2c.
Figures EasyHandle(const std::string& url, int requests) {
  CURL* easy = curl_easy_init();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  std::vector<double> us;
  us.reserve(requests);
  if (curl_easy_perform(easy) != CURLE_OK) std::abort();
  // libcurl 7.88 breaks an h2c connection reused with prior knowledge; plain
  // HTTP/2 reuses it as it is (the pool does the same).
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2_0));
  for (int i = 0; i < requests / 10; ++i) curl_easy_perform(easy);  // warm up
  auto start = Clock::now();
  for (int i = 0; i < requests; ++i) {
    auto t = Clock::now();
    if (curl_easy_perform(easy) != CURLE_OK) std::abort();
    us.push_back(Since(t));
  }
  double seconds = Since(start) / 1e6;
  curl_easy_cleanup(easy);
  return Summarise(std::move(us), seconds);
}

// `threads` threads, each sending one request at a time through one pool.
Figures Pool(HttpUserAgent& agent, const std::string& target, int requests, int threads) {
  Ref<ClientRequest> request;
  CreateHttpRequest(Get, target, request);
  auto once = [&] {
    Ref<PendingExchange> handle;
    Ref<ClientResponse> response;
    agent.AsyncSendRequest(request.Get(), nullptr, handle);
    agent.WaitForResponse(handle.Get(), 4000000, response);
    if (response->GetStatus().code != 200) std::abort();
  };
  for (int i = 0; i < requests / 10; ++i) once();  // warm up
  std::vector<std::vector<double>> perThread(threads);
  std::atomic<int> ready{0};
  std::vector<std::thread> pool;
  auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      perThread[t].reserve(requests / threads);
      ++ready;
      while (ready < threads) std::this_thread::yield();
      for (int i = 0; i < requests / threads; ++i) {
        auto s = Clock::now();
        once();
        perThread[t].push_back(Since(s));
      }
    });
  }
  for (auto& t : pool) t.join();
  double seconds = Since(start) / 1e6;
  std::vector<double> all;
  for (auto& v : perThread) all.insert(all.end(), v.begin(), v.end());
  return Summarise(std::move(all), seconds);
}

// `inFlight` requests kept going by completion callbacks on the I/O thread:
// the pool's own capacity, without a thread woken per response.
double PoolCallbacks(HttpUserAgent& agent, const std::string& target, int requests, int inFlight) {
  Ref<ClientRequest> request;
  CreateHttpRequest(Get, target, request);
  std::vector<Ref<PendingExchange>> slots(inFlight);
  std::atomic<int> issued{0}, finished{0};
  std::mutex m;
  std::condition_variable allDone;
  std::function<void(int)> issue = [&](int slot) {
    if (issued.fetch_add(1) >= requests) return;
    agent.AsyncSendRequest(request.Get(), [&, slot] {
      if (finished.fetch_add(1) + 1 == requests) {
        std::lock_guard<std::mutex> lock(m);
        allDone.notify_all();
      }
      issue(slot);
    }, slots[slot]);
  };
  auto start = Clock::now();
  for (int i = 0; i < inFlight; ++i) issue(i);
  std::unique_lock<std::mutex> lock(m);
  allDone.wait(lock, [&] { return finished.load() >= requests; });
  return requests / (Since(start) / 1e6);
}

// Two threads passing a turn back and forth through a condition variable:
// what the pool's two thread switches per request cost on this machine.
Figures HandOff(int rounds) {
  std::mutex m;
  std::condition_variable cv;
  bool ping = false;
  std::thread other([&] {
    std::unique_lock<std::mutex> lock(m);
    for (int i = 0; i < rounds; ++i) {
      cv.wait(lock, [&] { return ping; });
      ping = false;
      cv.notify_all();
    }
  });
  std::vector<double> us;
  auto start = Clock::now();
  std::unique_lock<std::mutex> lock(m);
  for (int i = 0; i < rounds; ++i) {
    auto t = Clock::now();
    ping = true;
    cv.notify_all();
    cv.wait(lock, [&] { return !ping; });
    us.push_back(Since(t));
  }
  lock.unlock();
  other.join();
  return Summarise(std::move(us), Since(start) / 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string host = argc > 1 ? argv[1] : "127.0.0.1";
  const int port = argc > 2 ? std::atoi(argv[2]) : 80;
  const std::string target = argc > 3 ? argv[3] : "/json";
  const int requests = argc > 4 ? std::atoi(argv[4]) : 20000;
  const int threads = argc > 5 ? std::atoi(argv[5]) : 16;
  const std::string sections = argc > 6 ? argv[6] : "handoff,easy,pool1,poolN,callbacks";
  auto wanted = [&](const char* name) { return sections.find(name) != std::string::npos; };
  curl_global_init(CURL_GLOBAL_DEFAULT);

  Ref<ConnectionSpec> spec;
  CreateTCPConnectionSpec(host, port, false, nullptr, spec);
  auto pool = CreateHttp2ConnectionPool(spec.Get(), nullptr);
  auto agent = CreateHttpUserAgent(spec.Get(), nullptr, pool.Get());
  const std::string url = "http://" + host + ":" + std::to_string(port) + target;

  std::printf("%-44s %9s %9s %9s %11s\n", "", "mean us", "p50 us", "p99 us", "requests/s");
  if (wanted("handoff")) Print("thread hand-off and back (no HTTP)", HandOff(requests));
  if (wanted("easy")) Print("libcurl easy handle, 1 thread", EasyHandle(url, requests));
  if (wanted("pool1")) Print("pool, 1 thread", Pool(*agent, target, requests, 1));
  std::string label = "pool, " + std::to_string(threads) + " threads";
  if (wanted("poolN")) Print(label.c_str(), Pool(*agent, target, requests * 2, threads));
  if (wanted("callbacks")) {
    std::printf("%-44s %9s %9s %9s %11.0f\n",
                ("pool, " + std::to_string(threads) + " in flight by callbacks").c_str(), "", "", "",
                PoolCallbacks(*agent, target, requests * 2, threads));
  }
  return 0;
}
