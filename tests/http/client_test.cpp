// The HTTP client against a real nginx speaking h2c (and TLS): round trips,
// one multiplexed connection, reconnects, and how failures are reported.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <map>

#include "http_test.h"

namespace http_test {
namespace {

TEST(RoundTrip, HeadersBodiesMethodsAndStatus) {
  setenv("http_proxy", "http://127.0.0.1:9", 1);  // must not be used: nothing listens there
  Endpoint ep(80);
  auto request = Request(Post, "/echo", "{\"ResetType\":\"On\"}");
  request->SetHeader("X-Test", "power");
  Ref<PendingExchange> handle;
  Ref<ClientResponse> response;
  ep.agent->AsyncSendRequest(request.Get(), nullptr, handle);
  ep.agent->WaitForResponse(handle.Get(), 5000000, response);
  EXPECT_EQ(response->GetStatus().reason, "OK");
  EXPECT_EQ(response->GetHeader("X-Echo-Test").value_or(""), "power");
  EXPECT_EQ(response->GetHeader("x-echo-length").value_or(""), "18");
  // A body without a Content-Type of the caller's is not labelled as a form.
  EXPECT_FALSE(response->GetHeader("X-Echo-Type").has_value());
  EXPECT_EQ(Body(*response), "{\"ResetType\":\"On\"}");
  unsetenv("http_proxy");

  for (auto [method, name] : {std::pair{Get, "GET"},
                              {Head, "HEAD"},
                              {Post, "POST"},
                              {Put, "PUT"},
                              {Patch, "PATCH"},
                              {Delete, "DELETE"}}) {
    auto r = Send(*ep.agent, method, "/echo", method == Delete ? "" : "x");
    EXPECT_EQ(r->GetHeader("X-Echo-Method").value_or(""), name);
    EXPECT_EQ(Body(*r), method == Head || method == Get || method == Delete ? "" : "x") << name;
  }
  // PUT and PATCH state an empty body explicitly.
  EXPECT_EQ(Send(*ep.agent, Put, "/echo")->GetHeader("X-Echo-Length").value_or(""), "0");
  EXPECT_EQ(Send(*ep.agent, Get, "/created")->GetStatus().reason, "Created");
  EXPECT_EQ(Send(*ep.agent, Get, "/missing")->GetStatus().code, 404);
  EXPECT_EQ(Body(*Send(*ep.agent, Get, "/empty")), "");
}

TEST(RoundTrip, EightMiBBodiesAndTheBodyLimit) {
  const std::string file = ReadFile(Env("HTTP_TEST_DIR") + "/www/big.bin");
  ASSERT_EQ(file.size(), 8u << 20);
  auto exact = GetDefaultHttp2SvcCfg();
  exact->maxResponseBodyBytes = 8 << 20;
  Endpoint ep(80, "127.0.0.1", exact);
  EXPECT_TRUE(Body(*Send(*ep.agent, Get, "/big.bin")) == file);
  // nginx keeps the body in a file and answers with its name.
  std::string upload(file.rbegin(), file.rend());
  std::string stored = Body(*Send(*ep.agent, Post, "/upload", upload));
  EXPECT_TRUE(ReadFile(stored.substr(0, stored.find('\n'))) == upload);

  exact->maxResponseBodyBytes = 1 << 20;
  Endpoint limited(80, "127.0.0.1", exact);
  // Announced length (rejected up front) and streamed length (cut off).
  for (auto [method, target, body] : {std::tuple{Get, "/big.bin", std::string()},
                                      std::tuple{Post, "/echo", std::string(2 << 20, 'b')}}) {
    EXPECT_NE(Thrown([&] { Send(*limited.agent, method, target, body); }).find("larger than"),
              std::string::npos)
        << target;
  }
  EXPECT_EQ(Body(*Send(*limited.agent, Get, "/hello")), "hello");
}

// A sensor collection of a large BMC, over and over on one connection, each
// well inside a time-out far longer than the transfer needs.
TEST(RoundTrip, LargeResponsesNeverStall) {
  const std::string file = ReadFile(Env("HTTP_TEST_DIR") + "/www/sensors-258k.bin");
  ASSERT_EQ(file.size(), 264192u);
  Endpoint ep(80);
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(Body(*Send(*ep.agent, Get, "/sensors-258k.bin", {}, 500000)) == file) << i;
  }
  EXPECT_EQ(ep.sockets.load(), 1);
}
// Each of `threads` threads puts `each` requests in flight, then waits for
// them all; returns the failures, with the first one's text.
std::pair<int, std::string> Blast(HttpUserAgent& agent, int threads, int each,
                                  const std::string& prefix) {
  std::atomic<int> failures{0}, ready{0};
  std::string first;
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      for (++ready; ready < threads;) std::this_thread::yield();
      std::vector<Ref<PendingExchange>> handles(each);
      for (int i = 0; i < each; ++i) {
        agent.AsyncSendRequest(Request(Get, prefix + std::to_string(t * each + i)).Get(), nullptr,
                               handles[i]);
      }
      for (auto& h : handles) {
        try {
          Ref<ClientResponse> r;
          agent.WaitForResponse(h.Get(), 20000000, r);
          if (r->GetStatus().code != 200)
            throw Exception("status " + std::to_string(r->GetStatus().code));
        } catch (const std::exception& e) {
          if (failures++ == 0) first = e.what();
        }
      }
    });
  }
  for (auto& t : pool) t.join();
  return {failures.load(), first};
}

TEST(Multiplexing, HundredConcurrentRequestsFromSixteenThreadsShareOneConnection) {
  Endpoint ep(80);
  auto [failures, first] = Blast(*ep.agent, 16, 7, "/json?mux=");
  EXPECT_EQ(failures, 0) << first;
  EXPECT_EQ(ep.sockets.load(), 1);
  std::vector<std::string> lines;
  ASSERT_TRUE(Eventually([&] { return (lines = LogLines("/json?mux=")).size() >= 112; }));
  for (auto& l : lines) EXPECT_EQ(l.substr(0, l.find(' ')), lines[0].substr(0, lines[0].find(' ')));
}

// A caller waiting for a slow answer drives the connection meanwhile: what
// others submit must leave at once, not when that answer comes in. Nor when
// the server ends the connection with a GOAWAY (its request limit, a
// reload): the next requests go on a new connection while the old one
// finishes the slow answer.
TEST(Multiplexing, NoRequestWaitsBehindASlowAnswerEvenAcrossAGoaway) {
  Endpoint ep(81);  // a GOAWAY after 100 requests; /late answers after 4 s
  std::atomic<bool> slowDone{false};
  std::thread slow(
      [&] { slowDone = Body(*Send(*ep.agent, Get, "/late", {}, 30000000)) == "late\n"; });
  ASSERT_TRUE(Eventually([&] { return ep.Pool().GetActiveExchangeCount() > 0; }));
  for (int i = 0; i < 150; ++i) {
    ASSERT_EQ(Body(*Send(*ep.agent, Get, "/", {}, 30000000)), "ok") << i;
  }
  EXPECT_FALSE(slowDone.load()) << "the requests waited for the slow answer";
  slow.join();
  EXPECT_TRUE(slowDone.load());
  EXPECT_EQ(ep.sockets.load(), 2);
}

TEST(Multiplexing, CrossingTheServersRequestLimitLosesAndRepeatsNothing) {
  Endpoint ep(81);  // nginx ends each connection after 100 requests, with a GOAWAY
  auto [failures, first] = Blast(*ep.agent, 16, 63, "/limit?id=");
  EXPECT_EQ(failures, 0) << first;
  EXPECT_GE(ep.sockets.load(), 11);
  std::vector<std::string> lines;
  ASSERT_TRUE(Eventually([&] { return (lines = LogLines("/limit?id=")).size() >= 1008; }));
  std::map<std::string, int> seen;
  for (auto& l : lines) ++seen[l.substr(l.find("id="))];
  EXPECT_EQ(seen.size(), 1008u);
  for (auto& [id, count] : seen)
    EXPECT_EQ(count, 1) << id << " was processed " << count << " times";
}

TEST(Reconnect, AfterIdleCloseReloadsAndRestarts) {
  Endpoint idle(82);  // closes idle connections after a second
  EXPECT_EQ(Body(*Send(*idle.agent, Get, "/")), "ok");
  pollfd p{idle.lastFd.load(), POLLRDHUP, 0};
  ASSERT_EQ(poll(&p, 1, 10000), 1) << "the server kept the idle connection";
  EXPECT_EQ(Body(*Send(*idle.agent, Get, "/")), "ok");
  EXPECT_EQ(idle.sockets.load(), 2);

  // Graceful reloads under load: old workers finish or refuse their streams.
  Endpoint ep(80);
  const std::string nginx = Env("HTTP_TEST_NGINX");
  std::thread reloader([&] {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_EQ(std::system((nginx + " -s reload").c_str()), 0);
    }
  });
  for (int i = 0; i < 300; ++i)
    EXPECT_EQ(Send(*ep.agent, Get, "/json")->GetStatus().code, 200) << i;
  reloader.join();

  // A full restart while idle: refused while down, fine once back.
  const std::string pid = std::to_string(std::stoi(ReadFile(Env("HTTP_TEST_DIR") + "/nginx.pid")));
  ASSERT_EQ(std::system((nginx + " -s stop").c_str()), 0);
  // Not our child: gone once it is a zombie or reaped.
  ASSERT_TRUE(Eventually([&] {
    return ReadFile("/proc/" + pid + "/stat").find(") Z ") != std::string::npos ||
           ReadFile("/proc/" + pid + "/stat").empty();
  }));
  EXPECT_EQ(Thrown([&] { Send(*ep.agent, Get, "/json"); }), "errno 111");
  ASSERT_EQ(std::system(nginx.c_str()), 0);
  EXPECT_EQ(Send(*ep.agent, Get, "/json")->GetStatus().code, 200);
}

// Refused connections are the restart test's and the agent test's.
TEST(Errors, UnreachableTimesOutTheConnectAndWhatQueuedBehindIt) {
  auto config = GetDefaultHttp2SvcCfg();
  config->connectTimeoutUs = 300000;
  Endpoint blackhole(80, Env("HTTP_TEST_UNREACHABLE"), config);
  auto start = std::chrono::steady_clock::now();
  // Requests queued behind the connect time out with it: nothing was sent.
  std::vector<Ref<PendingExchange>> handles(3);
  for (auto& h : handles)
    blackhole.agent->AsyncSendRequest(Request(Post, "/x", "on").Get(), nullptr, h);
  for (auto& h : handles) {
    Ref<ClientResponse> r;
    EXPECT_EQ(Thrown([&] { blackhole.agent->WaitForResponse(h.Get(), 20000000, r); }), "errno 110");
  }
  EXPECT_GE(SecondsSince(start), 0.3);
  EXPECT_GE(blackhole.sockets.load(), 1);
}

// A new connection (after the server ended the last one) has the whole
// connect limit, however long ago the pool first connected.
TEST(Errors, EveryConnectHasTheWholeLimit) {
  // A listener whose accept queue holds one connection: with it taken, SYNs
  // to it go unanswered.
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&a), len), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len), 0);
  auto config = GetDefaultHttp2SvcCfg();
  config->connectTimeoutUs = 300000;
  Endpoint ep(ntohs(a.sin_port), "127.0.0.1", config);
  Thrown([&] { Send(*ep.agent, Get, "/first", {}, 100000); });  // connected, never answered
  close(accept(listener, nullptr, nullptr));                    // which ends that connection
  std::this_thread::sleep_for(std::chrono::milliseconds(400));  // past the first limit
  int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(filler, reinterpret_cast<sockaddr*>(&a), len), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Thrown([&] { Send(*ep.agent, Get, "/second", {}, 20000000); }), "errno 110");
  EXPECT_GE(SecondsSince(start), 0.3);
  EXPECT_EQ(ep.sockets.load(), 2);
  close(filler);
  close(listener);
}

TEST(Errors, NoAnswerTimesOutCancelsAndIsNeverErrno110) {
  auto config = GetDefaultHttp2SvcCfg();
  config->connectTimeoutUs = 100000;  // far below the wait: must not turn into 110
  config->syncSendTimeoutUs = 400000;
  Endpoint ep(80, "127.0.0.1", config);
  Ref<PendingExchange> handle;
  ep.agent->AsyncSendRequest(Request(Post, "/hang?cancel=1", "off").Get(), nullptr, handle);
  auto start = std::chrono::steady_clock::now();
  Ref<ClientResponse> response;
  EXPECT_THROW(ep.agent->WaitForResponse(handle.Get(), 500000, response), TimeoutException);
  EXPECT_GE(SecondsSince(start), 0.5);
  EXPECT_LT(SecondsSince(start), 5.0);
  // Cancelled for good: waiting again does not revive it.
  EXPECT_THROW(ep.agent->WaitForResponse(handle.Get(), 1000000, response), TimeoutException);
  // Nothing is held any more, and the stream was reset on the wire (nginx
  // logs 499) while the connection stayed up.
  EXPECT_EQ(Body(*Send(*ep.agent, Get, "/hello")), "hello");
  EXPECT_TRUE(Eventually([&] { return ep.Pool().GetActiveExchangeCount() == 0; }));
  EXPECT_EQ(handle->RefCount(), 1);
  ASSERT_TRUE(Eventually([] { return LogLines("/hang?cancel=1").size() == 1; }));
  EXPECT_NE(LogLines("/hang?cancel=1")[0].find(" 499"), std::string::npos);
  EXPECT_EQ(ep.sockets.load(), 1);

  // SendRequest has the pool's limit.
  start = std::chrono::steady_clock::now();
  EXPECT_THROW(ep.agent->SendRequest(Request(Get, "/hang").Get(), response), TimeoutException);
  EXPECT_GE(SecondsSince(start), 0.4);
}

// A header block larger than HTTP/2 framing allows is never sent: it fails
// at once, not when the caller's limit passes, and alone on its connection.
TEST(Errors, ARequestTooLargeToSendFailsAtOnce) {
  Endpoint ep(80);
  Ref<PendingExchange> inFlight;
  ep.agent->AsyncSendRequest(Request(Get, "/hang").Get(), nullptr, inFlight);
  EXPECT_EQ(Body(*Send(*ep.agent, Get, "/hello")), "hello");  // /hang is on the wire
  EXPECT_THROW(Send(*ep.agent, Get, "/" + std::string(70000, 'a'), {}, 60000000),
               InvalidArgumentException);
  EXPECT_EQ(Body(*Send(*ep.agent, Get, "/hello")), "hello");
  EXPECT_EQ(ep.Pool().GetActiveExchangeCount(), 1u);  // /hang, still waiting
  EXPECT_EQ(ep.sockets.load(), 1);
}

TEST(Agent, WithoutAPoolSpeaksHttp1) {
  std::thread([] {}).join();  // a sanitizer's helper thread, if any, starts now
  const int baseline = ThreadCount();
  std::atomic<int> noDelay{0};
  Ref<ConnectionSpec> spec;
  CreateTCPConnectionSpec(
      "localhost", 84, false,
      [&](System::TCPClientSocket* s) {
        int v = 0;
        socklen_t len = sizeof v;
        getsockopt(s->GetFd(), IPPROTO_TCP, TCP_NODELAY, &v, &len);
        noDelay = v;
      },
      spec);
  auto agent = CreateHttpUserAgent(spec.Get());
  Ref<ClientResponse> response;
  agent->SendRequest(Request(Get, "/json").Get(), response);
  EXPECT_EQ(Body(*response), "{\"PowerState\":\"On\"}");
  EXPECT_EQ(noDelay.load(), 1);
  EXPECT_EQ(Body(*Send(*agent, Put, "/echo", "{\"BMC\":1}")), "{\"BMC\":1}");
  EXPECT_EQ(ThreadCount(), baseline);

  Ref<ConnectionSpec> h2only;
  CreateTCPConnectionSpec("127.0.0.1", 80, false, nullptr, h2only);
  const std::string h2Only =
      Thrown([&] { Send(*CreateHttpUserAgent(h2only.Get()), Get, "/json"); });
  EXPECT_NE(h2Only.find("HTTP/2"), std::string::npos) << h2Only;
  Ref<ConnectionSpec> refused;
  CreateTCPConnectionSpec("127.0.0.1", 9, false, nullptr, refused);
  EXPECT_EQ(Thrown([&] { Send(*CreateHttpUserAgent(refused.Get()), Get, "/json"); }), "errno 111");
}

TEST(Arguments, OnlySafeTargetsCleartextAndTheRightPool) {
  for (const char* good : {"/", "/redfish/v1/Systems/1", "//redfish//v1", "/a.b/c..d/.e",
                           "/Sensors?$expand=.($levels=1)", "/a%20b", "/x%41", "/Cpu%23"}) {
    EXPECT_TRUE(IsOriginFormTarget(good)) << good;
  }
  for (const char* bad :
       {"",        "redfish", "http://h/x", "/a b",   "/a\tb",     "/a\x7f",    "/a#frag",
        "/a/./b",  "/a/../b", "/a/.",       "/a/..",  "/..",       "/.?x",      "/a%2e%2e/b",
        "/a%2E/b", "/a%2fb",  "/a%2Fb",     "/a%00",  "/a%0d%0a",  "/a%7f",     "/a%",
        "/a%4",    "/a%zz",   "/a\\..\\b",  "/a%5cb", "/a/..?x=1", "/a\r\nX: 1"}) {
    EXPECT_FALSE(IsOriginFormTarget(bad)) << bad;
    Ref<ClientRequest> r;
    EXPECT_THROW(CreateHttpRequest(Get, bad, r), InvalidArgumentException) << bad;
  }
  // Also refused at send time, for a request built around CreateHttpRequest.
  Endpoint ep(80);
  Ref<PendingExchange> handle;
  EXPECT_THROW(
      ep.agent->AsyncSendRequest(MakeRef<ClientRequest>(Get, "/a/../b").Get(), nullptr, handle),
      InvalidArgumentException);
  Ref<ConnectionSpec> tls, other;
  CreateTCPConnectionSpec("localhost", 443, true, nullptr, tls);
  EXPECT_THROW(CreateHttp2ConnectionPool(tls.Get(), nullptr), InvalidArgumentException);
  // An agent may not claim another endpoint than its pool's.
  CreateTCPConnectionSpec("127.0.0.1", 81, false, nullptr, other);
  EXPECT_THROW(CreateHttpUserAgent(other.Get(), nullptr, ep.pool.Get()), InvalidArgumentException);
}

}  // namespace
}  // namespace http_test
