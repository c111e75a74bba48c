#include "connection/bmc_redfish_connection.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "tests/fakes/fake_sysinfo.h"
#include "tests/unit/test_support.h"
#include "utils/redfish_status.h"

using redfish::BmcHttpConnection;
using redfish::BmcRedfishConnection;
using test_support::LogCapture;
using test_support::ScriptedBmc;
using test_support::WaitUntilBlocked;
using namespace std::chrono_literals;
namespace Http = Tessel::Http;

namespace {

struct Connection : testing::Test {
  Connection() : logger(Tessel::Service::CreateLogger("Redfish")) {
    logger->SetLevel(6);
    fake_sysinfo::SetIpv4(127, 0, 42, 1);
    BmcHttpConnection::_bmcJsonUpdated = true;  // the route is in place
  }
  std::unique_ptr<BmcRedfishConnection> Make(const std::string& user = "admin",
                                             const std::string& password = "secret") {
    return std::make_unique<BmcRedfishConnection>("", user, password, logger);
  }
  Tessel::Ref<Tessel::Service::Logger> logger;
  LogCapture log;
};

fake_http::Reply WithHeader(fake_http::Reply r, const char* name, const char* value) {
  r.headers.push_back({name, value});
  return r;
}

}  // namespace

TEST_F(Connection, GetSendsBasicCredentialsAndReadsTheWholeBody) {
  const std::string big(100000, 'x');
  fake_http::Reply noLength;
  noLength.body = std::string(5000, 'y');
  ScriptedBmc bmc;
  bmc.Json("/bmc/big", "\"" + big + "\"")
      .On("/bmc/nolength", noLength)
      .Json("/bmc/empty", "")
      .Json("/bmc/denied", R"({"error":{}})", 401)
      .Json("/bmc/missing", R"({"error":"missing"})", 404)
      .Install();
  auto c = Make();
  std::string body;
  EXPECT_EQ(c->MakeHttpRequestGet("/bmc/big", body, 1000ms), 0);
  EXPECT_EQ(body.size(), big.size() + 2);
  // The headers and traces each request carries are the conformance table's.
  EXPECT_TRUE(log.Has(5, "[ClientResponse::Content-Length] 100002"));

  body.clear();
  EXPECT_EQ(c->MakeHttpRequestGet("/bmc/nolength", body, 0ms), 0);
  EXPECT_EQ(body.size(), 5000u) << "2048-byte reads until the end";
  body.clear();
  EXPECT_EQ(c->MakeHttpRequestGet("/bmc/empty", body, 0ms), 0);
  EXPECT_EQ(body, "");
  EXPECT_TRUE(log.Has(5, "[ClientResponse::Read] Read 0 bytes"));

  body.clear();
  EXPECT_EQ(c->MakeHttpRequestGet("/bmc/missing", body, 0ms), 404);
  EXPECT_EQ(body, R"({"error":"missing"})");
  EXPECT_TRUE(log.Has(5, "[ClientResponse::Read] Read 19 bytes\n'{\"error\":\"missing\"}'"));
  body.clear();
  EXPECT_EQ(c->MakeHttpRequestGet("/bmc/denied", body, 0ms), 40005);
  EXPECT_EQ(body, R"({"error":{}})");
}

TEST_F(Connection, ContentLengthIsOnlyAHintForTheBuffer) {
  for (const char* length : {"abc", "99999999999999999999999", "-1", "3000000000", "1"}) {
    fake_http::SetHandler([=](const fake_http::Request&) {
      fake_http::Reply r;
      r.headers.push_back({"Content-Length", length});
      r.body = std::string(5000, 'x');
      return r;
    });
    auto c = Make();
    std::string body;
    EXPECT_EQ(c->MakeHttpRequestGet("/bmc/x", body, 0ms), 0) << length;
    EXPECT_EQ(body.size(), 5000u) << length;
  }
}

TEST_F(Connection, TransportFailureReturnsItsCodeWithoutABody) {
  fake_http::SetHandler(
      [](const fake_http::Request&) { return fake_http::Throw<Tessel::TimeoutException>("t"); });
  auto c = Make();
  std::string body = "kept";
  EXPECT_EQ(c->MakeHttpRequestGet("/bmc/x", body, 0ms), 10003);
  EXPECT_EQ(c->MakeHttpRequestPost("/bmc/x", "{}", body, false, 0ms), 10003);
  EXPECT_EQ(c->MakeHttpRequestDelete("/bmc/x", body, 0ms), 10003);
  EXPECT_EQ(body, "kept");
}

TEST_F(Connection, PostAndDeleteReadOnceAndMapStatuses) {
  const std::string longBody(3000, 'z');
  ScriptedBmc bmc;
  bmc.On("/bmc/created", WithHeader(fake_http::Json(201, "{}"), "Location", "/new/1"))
      .Json("/bmc/nocontent", "", 204)
      .On("/bmc/busy", WithHeader(fake_http::Json(503, "busy body"), "Retry-After", "30"))
      .Json("/bmc/long", longBody)
      .Json("/bmc/denied", "no", 401)
      .Install();
  auto c = Make();
  std::string body;
  EXPECT_EQ(c->MakeHttpRequestPost("/bmc/created", R"({"a":1})", body, false, 0ms), 0);
  auto request = fake_http::Requests().back();
  EXPECT_EQ(request.body, R"({"a":1})");
  EXPECT_EQ(request.Header("Content-Type"), "application/json");
  EXPECT_FALSE(request.HasHeader("Accept"));
  EXPECT_TRUE(request.HasHeader("Authorization"));
  EXPECT_TRUE(log.Has(5, "[ClientResponse::LOCATION] /new/1"));

  EXPECT_EQ(c->MakeHttpRequestPost("/bmc/nocontent", "{}", body, true, 0ms), 204);
  EXPECT_FALSE(fake_http::Requests().back().HasHeader("Authorization"));
  EXPECT_EQ(body, "");

  body = "untouched";
  EXPECT_EQ(c->MakeHttpRequestPost("/bmc/busy", "{}", body, false, 0ms), 503);
  EXPECT_EQ(body, "untouched");
  EXPECT_TRUE(log.Has(5, "[ClientResponse::Retry-After] 30"));

  EXPECT_EQ(c->MakeHttpRequestPost("/bmc/long", "{}", body, false, 0ms), 0);
  EXPECT_EQ(body, longBody.substr(0, 2048));
  EXPECT_EQ(c->MakeHttpRequestPost("/bmc/denied", "{}", body, false, 0ms), 40005);

  EXPECT_EQ(c->MakeHttpRequestDelete("/bmc/denied", body, 0ms), 40005);
  EXPECT_EQ(body, "no");
  EXPECT_EQ(fake_http::Requests().back().method, Http::Delete);
  EXPECT_EQ(c->MakeHttpRequestDelete("/bmc/nocontent", body, 0ms), 204);
}

// Requests wait for their turn in the order they came, whatever the method,
// and a thread that asks again as soon as it is served goes to the back: it
// does not pass the threads that were already waiting.
TEST_F(Connection, RequestsAreServedInTheOrderTheyCame) {
  // All on one CPU, the waiters at idle priority: none runs while the
  // releasing thread can, so a lock it could take again always shows it.
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  std::promise<void> held;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  fake_http::SetHandler([&](const fake_http::Request& r) {
    if (r.target == "/bmc/first") {
      held.set_value();
      released.wait();
    }
    return fake_http::Json(200, "{}");
  });
  auto c = Make();
  std::thread first([&] {
    std::string body;
    EXPECT_EQ(c->MakeHttpRequestGet("/bmc/first", body, 0ms), 0);
    EXPECT_EQ(c->MakeHttpRequestGet("/bmc/again", body, 0ms), 0);
  });
  held.get_future().wait();

  // Waiting threads: GET, POST, DELETE, GET, ...
  auto send = [&](size_t i) {
    const std::string target = "/bmc/" + std::to_string(i);
    std::string body;
    switch (i % 3) {
      case 0:
        return c->MakeHttpRequestGet(target, body, 0ms);
      case 1:
        return c->MakeHttpRequestPost(target, "{}", body, false, 0ms);
      default:
        return c->MakeHttpRequestDelete(target, body, 0ms);
    }
  };
  constexpr size_t kWaiting = 6;
  std::atomic<pid_t> tids[kWaiting] = {};
  std::vector<std::thread> waiting;
  std::vector<std::string> expected = {"/bmc/first"};
  for (size_t i = 0; i < kWaiting; ++i) {
    expected.push_back("/bmc/" + std::to_string(i));
    waiting.emplace_back([&, i] {
      const sched_param idle{};
      pthread_setschedparam(pthread_self(), SCHED_IDLE, &idle);
      tids[i] = static_cast<pid_t>(syscall(SYS_gettid));
      EXPECT_EQ(send(i), 0);
    });
    WaitUntilBlocked(tids[i]);
  }
  expected.push_back("/bmc/again");
  release.set_value();
  first.join();
  for (auto& thread : waiting) thread.join();
  EXPECT_EQ(ScriptedBmc::Targets(), expected);
}
