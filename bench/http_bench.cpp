// The HTTP client's figures, each next to its yardstick, in one run: a raw
// libcurl easy handle reused for h2c, h2load, and the load time of the
// library. Run it through run-http-bench, which starts nginx.
//
//   http_bench HOST PORT LIBRARY [ROUNDS]
// LIBRARY is libbmcredfish.so.1 (for the load time); `http_bench dlopen LIB`
// times one dlopen in a fresh process.
#include <curl/curl.h>
#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "bench/h2load.h"
#include "platform/http/connection_pool.h"

using namespace Tessel;
using namespace Tessel::Http;
using Clock = std::chrono::steady_clock;

namespace {

double Since(Clock::time_point t) {
  return std::chrono::duration<double, std::micro>(Clock::now() - t).count();
}

double CpuUs() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

// A reused easy handle: what a caller doing its own I/O would get from libcurl.
struct Easy {
  CURL* easy = curl_easy_init();
  explicit Easy(const std::string& url) {
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                     static_cast<long>(CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Discard);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    if (curl_easy_perform(easy) != CURLE_OK) std::abort();
    // libcurl 7.88 breaks an h2c connection reused with prior knowledge.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2_0));
  }
  ~Easy() { curl_easy_cleanup(easy); }
  void Once() {
    if (curl_easy_perform(easy) != CURLE_OK) std::abort();
  }
};

struct Client {
  Ref<ConnectionSpec> spec;
  Ref<HttpConnectionPool> pool;
  Ref<HttpUserAgent> agent;
  Client(const std::string& host, int port) {
    CreateTCPConnectionSpec(host, port, false, nullptr, spec);
    pool = CreateHttp2ConnectionPool(spec.Get(), nullptr);
    agent = CreateHttpUserAgent(spec.Get(), nullptr, pool.Get());
  }
  // Returns the body size, as a caller reading it would.
  size_t Once(ClientRequest* request, int64_t limitUs = 4000000) {
    Ref<PendingExchange> handle;
    Ref<ClientResponse> response;
    agent->AsyncSendRequest(request, nullptr, handle);
    agent->WaitForResponse(handle.Get(), limitUs, response);
    if (response->GetStatus().code != 200) std::abort();
    static thread_local std::vector<char> buf(1 << 20);
    size_t total = 0;
    for (int32_t n; (n = response->ReadBody(buf.data(), static_cast<uint32_t>(buf.size()))) > 0;)
      total += static_cast<size_t>(n);
    return total;
  }
};

Ref<ClientRequest> MakeGet(const std::string& target) {
  Ref<ClientRequest> r;
  CreateHttpRequest(Http::Get, target, r);
  return r;
}

struct Pair {
  double client = 0, curl = 0;
};

// Latency p50 and CPU per request, interleaving blocks of the client and of
// libcurl so that both see the same machine.
void Compare(Client& client, Easy& easy, const std::string& target, int rounds, int block,
             Pair& p50, Pair& cpu) {
  auto request = MakeGet(target);
  std::vector<double> latC, latE, cpuC, cpuE;
  for (int r = 0; r < rounds; ++r) {
    double c0 = CpuUs();
    for (int i = 0; i < block; ++i) {
      auto t = Clock::now();
      client.Once(request.Get());
      latC.push_back(Since(t));
    }
    cpuC.push_back((CpuUs() - c0) / block);
    c0 = CpuUs();
    for (int i = 0; i < block; ++i) {
      auto t = Clock::now();
      easy.Once();
      latE.push_back(Since(t));
    }
    cpuE.push_back((CpuUs() - c0) / block);
  }
  p50 = {Median(latC), Median(latE)};
  cpu = {Median(cpuC), Median(cpuE)};
}

double ThreadsRate(Client& client, const std::string& target, int threads, int each) {
  std::atomic<int> ready{0};
  std::vector<std::thread> pool;
  auto start = Clock::now();
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&] {
      auto request = MakeGet(target);
      for (++ready; ready < threads;) std::this_thread::yield();
      for (int i = 0; i < each; ++i) client.Once(request.Get());
    });
  }
  for (auto& t : pool) t.join();
  return threads * each / (Since(start) / 1e6);
}

// Milliseconds for one dlopen, in a fresh process (the figure a hosting
// service sees when it loads the library).
double DlopenMs(const char* self, const std::string& library) {
  std::vector<double> ms;
  for (int i = 0; i < 11; ++i) {
    std::string out = "/tmp/http_bench_dlopen." + std::to_string(getpid());
    std::string cmd = std::string(self) + " dlopen " + library + " > " + out;
    if (std::system(cmd.c_str()) != 0) return -1;
    if (FILE* f = std::fopen(out.c_str(), "r")) {
      double v;
      if (std::fscanf(f, "%lf", &v) == 1) ms.push_back(v);
      std::fclose(f);
    }
    std::remove(out.c_str());
  }
  return Median(ms);
}

void Row(const char* figure, double client, double yardstick, const char* unit, double ratio,
         const char* target, bool met) {
  std::printf("%-46s %10.1f %10.1f %-8s %7.2fx  %-8s %s\n", figure, client, yardstick, unit, ratio,
              target, met ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "dlopen") {
    auto t = Clock::now();
    void* lib = dlopen(argv[2], RTLD_NOW | RTLD_LOCAL);
    const double us = Since(t);
    if (lib == nullptr) return 1;
    std::printf("%.3f\n", us / 1000);
    return 0;
  }
  if (argc < 4) {
    std::fprintf(stderr, "usage: http_bench HOST PORT LIBRARY [ROUNDS]\n");
    return 2;
  }
  const std::string host = argv[1];
  const int port = std::atoi(argv[2]);
  const std::string library = argv[3];
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 5;
  const std::string origin = "http://" + host + ":" + std::to_string(port);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Client client(host, port);

  std::printf("%-46s %10s %10s %-8s %8s  %-8s\n", "figure", "client", "yardstick", "unit", "ratio",
              "target");
  // Warm both ends.
  Easy easy(origin + "/json");
  {
    auto r = MakeGet("/json");
    for (int i = 0; i < 2000; ++i) client.Once(r.Get()), easy.Once();
  }
  // HTTP_BENCH_ONLY=threads: just the 16-thread rows, for iterating on them.
  const char* only = std::getenv("HTTP_BENCH_ONLY");
  const bool threadsOnly = only != nullptr && std::string(only) == "threads";
  Pair p50, cpu;
  if (!threadsOnly) Compare(client, easy, "/json", rounds * 4, 2000, p50, cpu);
  if (!threadsOnly) {
    Row("warm read p50, 1 thread (vs libcurl handle)", p50.client, p50.curl, "us",
        p50.client / p50.curl, "<= 1.10", p50.client <= 1.10 * p50.curl);
    Row("client CPU per warm read (vs libcurl handle)", cpu.client, cpu.curl, "us",
        cpu.client / cpu.curl, "<= 1.30", cpu.client <= 1.30 * cpu.curl);
  }

  std::vector<double> ours, theirs;
  for (int r = 0; r < rounds; ++r) {
    ours.push_back(ThreadsRate(client, "/json", 16, 3000));
    theirs.push_back(H2load(origin + "/json", 16, 48000));
  }
  const double rate = Median(ours), h2 = Median(theirs);
  Row("16 threads x 16 keys (vs h2load -c1 -m16)", rate, h2, "req/s", h2 > 0 ? rate / h2 : 0,
      ">= 0.70", rate >= 0.70 * h2);
  if (threadsOnly) return 0;

  for (auto [name, kb] :
       {std::pair{"/1k.bin", 1}, {"/27k.bin", 27}, {"/258k.bin", 258}, {"/1m.bin", 1024}}) {
    auto request = MakeGet(name);
    int slow = 0;
    std::vector<double> lat;
    for (int i = 0; i < 1000; ++i) {
      auto t = Clock::now();
      client.Once(request.Get());
      lat.push_back(Since(t));
      slow += lat.back() > 100000;
    }
    const std::string label = "requests over 100 ms of 1000 at " + std::to_string(kb) + " KB";
    std::printf("%-46s %10d %10s %-8s p50 %.0f us, max %.0f us  target 0  %s\n", label.c_str(),
                slow, "", "", Median(lat), *std::max_element(lat.begin(), lat.end()),
                slow == 0 ? "met" : "MISSED");
  }

  for (auto [name, kb] : {std::pair{"/258k.bin", 258}, {"/1m.bin", 1024}}) {
    Easy big(origin + name);
    Pair lat, per;
    Compare(client, big, name, rounds, 100, lat, per);
    const std::string label =
        std::string("CPU per KB at ") + std::to_string(kb) + " KB (vs libcurl)";
    Row(label.c_str(), per.client / kb, per.curl / kb, "us/KB", per.client / per.curl, "<= 2",
        per.client <= 2 * per.curl);
  }

  const double ms = DlopenMs(argv[0], library);
  std::printf("%-46s %10.2f %10s %-8s %8s  %-8s %s\n", "dlopen of the library (median of 11)", ms,
              "", "ms", "", "<= 5", ms >= 0 && ms <= 5 ? "met" : "MISSED");
  return 0;
}
