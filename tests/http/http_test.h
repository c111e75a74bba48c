#pragma once

// Helpers of the HTTP client tests; they run under with-nginx (see there).
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/http/connection_pool.h"
#include "platform/tessel/http.h"

namespace http_test {

using namespace Tessel;
using namespace Tessel::Http;

inline std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline int ThreadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

inline double SecondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Polls a condition every 10 ms for up to `seconds`; for effects that follow
// an event with no way to be told (log lines, a thread ending).
template <typename F>
bool Eventually(F condition, double seconds = 10) {
  auto start = std::chrono::steady_clock::now();
  while (!condition()) {
    if (SecondsSince(start) > seconds) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Waits for a child process for up to `seconds`: its exit status, 128 plus
// the signal that ended it, or -1 when it had to be killed.
inline int WaitChild(pid_t pid, double seconds = 30) {
  int status = 0;
  if (!Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds)) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What f threw: "errno N" for a SystemException, "timeout: ..." for a time-out,
// the text of any other Exception; "" when it returned.
template <typename F>
std::string Thrown(F f) {
  try {
    f();
  } catch (const SystemException& e) {
    return "errno " + std::to_string(e.GetError());
  } catch (const TimeoutException& e) {
    return std::string("timeout: ") + e.what();
  } catch (const Exception& e) {
    return e.what();
  }
  return "";
}

// An endpoint with a pool, counting the sockets the pool opens.
struct Endpoint {
  explicit Endpoint(int port, const std::string& host = "127.0.0.1",
                    Ref<Http2SvcConfig> config = GetDefaultHttp2SvcCfg()) {
    CreateTCPConnectionSpec(
        host, port, false,
        [this](System::TCPClientSocket* s) {
          lastFd = s->GetFd();
          ++sockets;
        },
        spec);
    pool = CreateHttp2ConnectionPool(spec.Get(), config.Get());
    agent = CreateHttpUserAgent(spec.Get(), nullptr, pool.Get());
  }
  Http2ConnectionPool& Pool() { return *static_cast<Http2ConnectionPool*>(pool.Get()); }

  std::atomic<int> sockets{0};
  std::atomic<int> lastFd{-1};
  Ref<ConnectionSpec> spec;
  Ref<HttpConnectionPool> pool;
  Ref<HttpUserAgent> agent;
};

inline Ref<ClientRequest> Request(HttpMethod method, const std::string& target,
                                  const std::string& body = {}) {
  Ref<ClientRequest> r;
  CreateHttpRequest(method, target, r);
  if (!body.empty()) r->SetBody(body.data(), static_cast<uint32_t>(body.size()));
  return r;
}

inline std::string Body(ClientResponse& response) {
  std::string out;
  char buf[65536];
  for (int32_t n; (n = response.ReadBody(buf, sizeof buf)) >= 0;)
    out.append(buf, static_cast<size_t>(n));
  return out;
}

inline Ref<ClientResponse> Send(HttpUserAgent& agent, HttpMethod method, const std::string& target,
                                const std::string& body = {}, int64_t limitUs = 10000000) {
  Ref<PendingExchange> handle;
  agent.AsyncSendRequest(Request(method, target, body).Get(), nullptr, handle);
  Ref<ClientResponse> response;
  agent.WaitForResponse(handle.Get(), limitUs, response);
  return response;
}

// Lines of nginx's access log ("$connection $method $request_uri $status")
// whose URI starts with `prefix`.
inline std::vector<std::string> LogLines(const std::string& prefix) {
  std::istringstream in(ReadFile(Env("HTTP_TEST_DIR") + "/access.log"));
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) {
    std::istringstream f(line);
    std::string conn, method, uri;
    f >> conn >> method >> uri;
    if (uri.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
  }
  return out;
}

}  // namespace http_test
