#include "transport/bmc_http_connection.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/fakes/fake_sysinfo.h"
#include "tests/unit/test_support.h"

using redfish::BmcHttpConnection;
using test_support::LogCapture;
using namespace std::chrono_literals;
namespace Http = Tessel::Http;

namespace {

constexpr char kDocPath[] = "/portico/config/json/bmcApi.json";

struct Transport : testing::Test {
  Transport() {
    auto logger = Tessel::Service::CreateLogger("Redfish");
    logger->SetLevel(6);
    bmc = BmcHttpConnection::GetInstance(logger);
    BmcHttpConnection::_logger->SetLevel(6);
    BmcHttpConnection::_bmcJsonUpdated = false;
    fake_sysinfo::Current() = {};
    fake_sysinfo::SetIpv4(127, 0, 42, 1);
  }
  int Send(int method, std::chrono::milliseconds timeout = 1000ms) {
    Tessel::Ref<Http::ClientRequest> request;
    Http::CreateHttpRequest(static_cast<Http::HttpMethod>(method), "/bmc/redfish/v1", request);
    response = nullptr;
    return bmc->SendRequestToProxy("/bmc/redfish/v1", request, response,
                                   static_cast<Http::HttpMethod>(method), timeout);
  }
  BmcHttpConnection* bmc;
  Tessel::Ref<Http::ClientResponse> response;
  LogCapture log;
};

}  // namespace

// Only 200 is 0 (POST and DELETE too); a redirect is reported, with its
// location, and never followed; HEAD is sent, then refused; exceptions of the
// platform become transport codes.
TEST_F(Transport, AnswersAndExceptionsBecomeResultsWithTheirLogLines) {
  auto redirect = fake_http::Json(302, "");
  redirect.headers.push_back({"location", "/elsewhere"});
  const std::string timedOut = "GET: Response from http://localhost:80 timed out after 1000 ";
  const struct {
    fake_http::Reply reply;
    int method;
    int code;
    int level;
    std::string line;  // "": none but the pool's trace
  } cases[] = {
      {fake_http::Json(200, "{}"), Http::Get, 0, 5,
       "Successfully called portico config file GET from /bmc/redfish/v1"},
      {fake_http::Json(204, ""), Http::Post, 204, 3,
       "POST: Error getting from /bmc/redfish/v1: 204 (No Content)"},
      {fake_http::Json(201, ""), Http::Delete, 201, 3,
       "DELETE: Error getting from /bmc/redfish/v1: 201 (Created)"},
      {redirect, Http::Get, 302, 5, "[ClientResponse::LOCATION] /elsewhere"},
      {redirect, Http::Get, 302, 3, "GET: Error getting from /bmc/redfish/v1: 302 (Found)"},
      {fake_http::Json(200, "{}"), Http::Head, 10002, 3, "Invalid HTTP method request"},
      {fake_http::Throw<Tessel::Ssl::SSLVerifyException>("bad cert"), Http::Get, 10001, 3,
       "GET: Failed SSL verification of server with hostname 'http://localhost:80': bad cert"},
      {fake_http::Throw<Tessel::InvalidArgumentException>("bad arg"), Http::Get, 10002, 3,
       timedOut + "milliseconds: bad arg"},
      {fake_http::Throw<Tessel::TimeoutException>("slow"), Http::Get, 10003, 3,
       timedOut + "milliseconds: slow"},
      {fake_http::Throw<Tessel::SystemException>(111, "refused"), Http::Get, 10004, 3, ""},
      {fake_http::Throw<Tessel::Exception>("reset"), Http::Get, 10005, 3,
       "GET: AsyncSendRequest to http://localhost:80 failed : reset"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    log.Clear();
    fake_http::SetHandler([&](const fake_http::Request&) { return c.reply; });
    EXPECT_EQ(Send(c.method), c.code);
    EXPECT_EQ(fake_http::Requests().size(), 1u);
    EXPECT_EQ(fake_http::Requests().back().method, c.method);
    if (c.line.empty()) {
      EXPECT_LE(log.Lines().size(), 1u);
    } else {
      EXPECT_TRUE(log.Has(c.level, c.line));
    }
  }
  fake_http::SetHandler([](const fake_http::Request&) { return fake_http::Json(302, ""); });
  EXPECT_EQ(Send(Http::Get), 302);
  EXPECT_FALSE(log.HasPrefix(5, "[ClientResponse::LOCATION]")) << "only when there is one";

  log.Clear();
  BmcHttpConnection::_logger->SetLevel(2);
  EXPECT_EQ(Send(Http::Get), 302);
  fake_http::SetHandler(
      [](const fake_http::Request&) { return fake_http::Throw<Tessel::Exception>("x"); });
  EXPECT_EQ(Send(Http::Get), 10005);
  EXPECT_TRUE(log.Lines().empty()) << "quiet below level 3";
}

TEST_F(Transport, ConnectTimeoutIsRetriedWhileTimeIsLeftOnly) {
  int attempts = 0;
  fake_http::SetHandler([&](const fake_http::Request&) {
    return ++attempts == 1 ? fake_http::Throw<Tessel::SystemException>(110, "connect timed out")
                           : fake_http::Json(200, "{}");
  });
  EXPECT_EQ(Send(Http::Post, 0ms), 0);
  EXPECT_EQ(attempts, 2);
  auto requests = fake_http::Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].waitLimitUs, 4000000);  // 0 means the 4 s default, per attempt
  EXPECT_EQ(requests[1].waitLimitUs, 4000000);
  EXPECT_TRUE(log.HasPrefix(5, "POST: Retrying connection to http://localhost:80. Time left: "));

  // After the deadline: no further attempt.
  attempts = 0;
  fake_http::SetHandler([&](const fake_http::Request&) {
    ++attempts;
    std::this_thread::sleep_for(5ms);
    return fake_http::Throw<Tessel::SystemException>(110, "connect timed out");
  });
  EXPECT_EQ(Send(Http::Get, 1ms), 10004);
  EXPECT_EQ(attempts, 1);
}

TEST_F(Transport, GlobalMutexIsFreeWhileARequestIsInFlight) {
  bool lockable = false;
  fake_http::SetHandler([&](const fake_http::Request&) {
    std::thread probe([&] {
      if (BmcHttpConnection::gMutex.try_lock()) {
        lockable = true;
        BmcHttpConnection::gMutex.unlock();
      }
    });
    probe.join();
    return fake_http::Json(200, "{}");
  });
  EXPECT_EQ(Send(Http::Get), 0);
  EXPECT_TRUE(lockable);
}

TEST(BmcIpFromSmbios, FormatsTheRecordsAddress) {
  auto logger = Tessel::Service::CreateLogger("Redfish");
  logger->SetLevel(6);
  BmcHttpConnection* bmc = BmcHttpConnection::GetInstance(logger);
  LogCapture log;
  const struct {
    std::array<uint8_t, 4> octets;
    const char* text;
  } cases[] = {{{10, 0, 0, 42}, "10.0.0.42"},
               {{255, 255, 255, 255}, "255.255.255.255"},
               {{0, 0, 0, 0}, "0.0.0.0"}};
  for (const auto& c : cases) {
    fake_sysinfo::SetIpv4(c.octets[0], c.octets[1], c.octets[2], c.octets[3], 3);
    std::string ip = "unchanged";
    EXPECT_EQ(bmc->BmcIpFromSmbios(ip), 0);
    EXPECT_EQ(ip, c.text);
    EXPECT_TRUE(log.Has(5, std::string("BMC IP4 addr: ") + c.text));
  }
  EXPECT_TRUE(log.Has(5, "IP Discovery type : 3"));

  std::string ip = "unchanged";  // no IPv4 address: the route and API tests
  fake_sysinfo::Current().getStatus = 3;
  EXPECT_EQ(bmc->BmcIpFromSmbios(ip), 30001);
  EXPECT_TRUE(log.Has(3, "Failed to get rfInfo zirn node: scripted sysinfo failure"));

  const int reads = fake_sysinfo::Current().getCalls;
  fake_sysinfo::Current().checkSig = 1;
  EXPECT_EQ(bmc->BmcIpFromSmbios(ip), 30001);
  EXPECT_EQ(fake_sysinfo::Current().getCalls, reads) << "the node is not read";
  EXPECT_TRUE(log.Has(3,
                      "MD5 signature mismatch with running nucleus built on KKKKKKKKKKKKKKKKKKKK "
                      "(my build date: Nov 01 2026)\n"));
}

namespace {

struct RouteDocument : Transport {
  // The proxy's configuration endpoint: answers GET with getReply, PUT with putReply.
  void Script(fake_http::Reply getReply, fake_http::Reply putReply = fake_http::Json(204, "")) {
    fake_http::SetHandler([=](const fake_http::Request& r) {
      EXPECT_EQ(r.endpoint, "http://localhost:549");
      EXPECT_EQ(r.waitLimitUs, 2000000) << "a hung local endpoint costs little";
      EXPECT_EQ(r.target, kDocPath);
      return r.method == Http::Get ? getReply : putReply;
    });
  }
  std::vector<fake_http::Request> Puts() {
    std::vector<fake_http::Request> out;
    for (auto& r : fake_http::Requests()) {
      if (r.method == Http::Put) out.push_back(r);
    }
    return out;
  }
};

const char kCompactTemplate[] =
    R"({"proxy_configuration":{"listeners":[{"name":"ALL_HTTP_LISTENERS","filter_chains":[{"filter_chain_match":{"source_type":"LOCAL"},"filters":[{"config":{"route_config":{"virtual_hosts":[{"routes":[{"route":{"cluster":"bmc-cluster","prefix_rewrite":"/"},"match":{"prefix":"/bmc/"}}]}]}}}]}]}],"clusters":[{"name":"bmc-cluster","type":"STRICT_DNS","endpoints":[{"socket_address":{"address":"127.0.42.1","port_value":443}}],"tls_context":{},"typed_extension_protocol_options":{"upstreams_http_protocol_options":{"auto_config":{}}}}]}})";

std::string Document(const std::string& address) {
  return R"({"proxy_configuration":{"clusters":[{"endpoints":[{"socket_address":{"address":")" +
         address + R"(","port_value":443}}]}]},"other":[1,2]})";
}

}  // namespace

// What a GET and a PUT answer make of the update: its result, the document
// PUT ("" for none), and the flag raised only on success.
TEST_F(RouteDocument, OutcomesOfEachAnswer) {
  const auto ok = fake_http::Json(204, "");
  const std::string mine = Document("127.0.42.1");
  const struct {
    fake_http::Reply get;
    fake_http::Reply put;
    int result;
    std::string written;
  } cases[] = {
      {fake_http::Json(404, ""), ok, 0, kCompactTemplate},  // none yet: the template
      {fake_http::Json(200, Document("127.0.42.1")), ok, 0, ""},
      {fake_http::Json(200, Document("10.0.0.1")), ok, 0, mine},  // the rest is kept
      {fake_http::Json(200,
                       R"({"proxy_configuration":{"clusters":[{"endpoints":[{"socket_address":)"
                       R"({"address":7}}]}]}})"),
       ok, 0,
       R"({"proxy_configuration":{"clusters":[{"endpoints":[{"socket_address":)"
       R"({"address":"127.0.42.1"}}]}]}})"},
      {fake_http::Json(200, Document("x") + std::string(2100, ' ')), ok, 0, mine},
      {fake_http::Json(503, ""), ok, 503, ""},
      {fake_http::Json(404, ""), fake_http::Json(200, ""), 200, ""},
      {fake_http::Json(200, "not json"), ok, 20001, ""},
      {fake_http::Json(200, ""), ok, 20001, ""},
      {fake_http::Json(200, R"({"proxy_configuration":{"clusters":[]}})"), ok, 20001, ""},
      {fake_http::Json(200, R"({"proxy_configuration":{"clusters":[{"endpoints":[]}]}})"), ok,
       20001, ""},
      {fake_http::Json(200, R"({"big":")" + std::string(2100, 'x') + "\"}"), ok, 20001, ""},
      {fake_http::Throw<Tessel::SystemException>(111, "refused"), ok, 10004, ""},
      {fake_http::Json(404, ""), fake_http::Throw<Tessel::Exception>("reset"), 10004, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.get.body.substr(0, 80) + " " + std::to_string(c.result));
    BmcHttpConnection::_bmcJsonUpdated = false;
    Script(c.get, c.put);
    EXPECT_EQ(bmc->UpdateBmcApiJson(""), c.result);
    EXPECT_EQ(BmcHttpConnection::_bmcJsonUpdated.load(), c.result == 0);
    auto puts = Puts();
    if (!c.written.empty()) {
      ASSERT_EQ(puts.size(), 1u);
      EXPECT_EQ(puts[0].body, c.written);
    } else if (c.result == 0) {
      EXPECT_TRUE(puts.empty());
    }
  }
  EXPECT_TRUE(log.Has(3, "PUT request failed: OK"));
  EXPECT_TRUE(log.Has(3, "GET request error: refused"));
  EXPECT_TRUE(log.Has(3, "PUT request error: reset"));
}

TEST_F(RouteDocument, GivenHostNeedsNoDiscoveryAndNoIpv4AddressMeansNoRequest) {
  Script(fake_http::Json(200, Document("10.1.2.3")));
  EXPECT_EQ(bmc->UpdateBmcApiJson("10.1.2.3"), 0);
  EXPECT_TRUE(Puts().empty());
  EXPECT_EQ(fake_sysinfo::Current().getCalls, 0);

  BmcHttpConnection::_bmcJsonUpdated = false;
  Script(fake_http::Json(404, ""));
  fake_sysinfo::Current().record[4] = 0;
  EXPECT_EQ(bmc->UpdateBmcApiJson(""), 30001);
  EXPECT_TRUE(fake_http::Requests().empty());
}
