// The transport and the connection against the real proxy stand-in and BMC
// emulator, through the classes the library exports. Run by tools/host-sim.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "connection/bmc_redfish_connection.h"
#include "transport/bmc_http_connection.h"

using redfish::BmcHttpConnection;
using redfish::BmcRedfishConnection;
using namespace std::chrono_literals;

namespace {

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

struct Entry {
  std::string method, path, body;
  rapidjson::Document headers;
  int status = 0;
  std::string Header(const char* name) const {
    for (auto& m : headers.GetObject()) {
      if (strcasecmp(m.name.GetString(), name) == 0 && m.value.IsString())
        return m.value.GetString();
    }
    return "";
  }
};

std::vector<Entry> Log(const std::string& file) {
  std::vector<Entry> out;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    rapidjson::Document d;
    d.Parse(line.c_str());
    if (!d.IsObject()) continue;
    Entry e;
    e.method = d["method"].GetString();
    e.path = d["path"].GetString();
    e.body = d.HasMember("body") && d["body"].IsString() ? d["body"].GetString() : "";
    e.status = d.HasMember("status") && d["status"].IsInt() ? d["status"].GetInt() : 0;
    e.headers.SetObject();
    if (d.HasMember("headers")) e.headers.CopyFrom(d["headers"], e.headers.GetAllocator());
    out.push_back(std::move(e));
  }
  return out;
}

int Puts() {
  int n = 0;
  for (const auto& e : Log(Env("PORTICO_LOG"))) n += e.method == "PUT";
  return n;
}

void Shell(const std::string& cmd) { ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd; }

void PorticoFaults(const std::string& json) {
  Shell("curl -s --http2-prior-knowledge -o /dev/null -X PUT --data '" + json + "' " +
        Env("PORTICO_CONTROL") + "/faults");
}

std::string Document(const std::string& address) {
  return R"({"proxy_configuration":{"clusters":[{"name":"bmc-cluster","endpoints":[{"socket_address":{"address":")" +
         address + R"(","port_value":443}}]}]},"kept":{"a":[1,2]}})";
}

const std::string kCompactTemplatePrefix =
    R"({"proxy_configuration":{"listeners":[{"name":"ALL_HTTP_LISTENERS","filter_chains":[{"filter_chain_match":{"source_type":"LOCAL"})";

class Proxy : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    logger = Tessel::MakeRef<Tessel::Service::Logger>("Redfish", 6);
    bmc = BmcHttpConnection::GetInstance(logger);
  }
  void SetUp() override {
    BmcHttpConnection::_bmcJsonUpdated = false;
    PorticoFaults("[]");
  }
  static Tessel::Ref<Tessel::Service::Logger> logger;
  static BmcHttpConnection* bmc;
};
Tessel::Ref<Tessel::Service::Logger> Proxy::logger;
BmcHttpConnection* Proxy::bmc = nullptr;

}  // namespace

TEST_F(Proxy, NoIpv4AddressInTheRecordMeansNoRequest) {
  if (Env("E2E_SMBIOS") != "ipv6") GTEST_SKIP() << "needs an IPv6-only SMBIOS record";
  EXPECT_EQ(bmc->UpdateBmcApiJson(""), 30001);
  EXPECT_TRUE(Log(Env("PORTICO_LOG")).empty());
}

// The proxy starts without a document: the first update writes the template.
TEST_F(Proxy, MissingDocumentIsWrittenFromTheTemplate) {
  if (Env("E2E_SMBIOS") == "ipv6") GTEST_SKIP();
  ASSERT_EQ(bmc->UpdateBmcApiJson(""), 0);
  auto log = Log(Env("PORTICO_LOG"));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].status, 404);
  EXPECT_EQ(log[1].method, "PUT");
  EXPECT_EQ(log[1].Header("Content-Type"), "application/json");
  EXPECT_EQ(log[1].body.compare(0, kCompactTemplatePrefix.size(), kCompactTemplatePrefix), 0)
      << log[1].body;
  EXPECT_NE(log[1].body.find(R"({"address":")" + Env("BMC_ADDR") + R"(","port_value":443})"),
            std::string::npos);
  EXPECT_TRUE(BmcHttpConnection::_bmcJsonUpdated);

  EXPECT_EQ(bmc->UpdateBmcApiJson("10.9.9.9"), 0);
  EXPECT_EQ(Log(Env("PORTICO_LOG")).size(), 2u) << "nothing is sent once the flag is set";
}

TEST_F(Proxy, DocumentNamingTheAddressIsLeftAloneAndAnotherIsReplaced) {
  if (Env("E2E_SMBIOS") == "ipv6") GTEST_SKIP();
  ASSERT_EQ(bmc->UpdateBmcApiJson(Env("BMC_ADDR")), 0);  // the proxy now names the BMC
  BmcHttpConnection::_bmcJsonUpdated = false;
  int puts = Puts();
  EXPECT_EQ(bmc->UpdateBmcApiJson(""), 0);
  EXPECT_EQ(Puts(), puts);

  Shell("curl -s --http2-prior-knowledge -o /dev/null -X PUT --data '" + Document("127.0.0.9") +
        "' http://127.0.0.1:549/portico/config/json/bmcApi.json");
  BmcHttpConnection::_bmcJsonUpdated = false;
  EXPECT_EQ(bmc->UpdateBmcApiJson(""), 0);
  auto log = Log(Env("PORTICO_LOG"));
  EXPECT_EQ(log.back().method, "PUT");
  EXPECT_EQ(log.back().body, Document(Env("BMC_ADDR")));
}

TEST_F(Proxy, ProxyFailuresAreReportedAndLeaveTheFlagDown) {
  if (Env("E2E_SMBIOS") == "ipv6") GTEST_SKIP();
  const struct {
    const char* fault;
    int result;
  } cases[] = {{"get=503@1", 503}, {"put=200@1", 200}, {"big@1", 20001}, {"garbage@1", 20001}};
  Shell("curl -s --http2-prior-knowledge -o /dev/null -X PUT --data '" + Document("127.0.0.9") +
        "' http://127.0.0.1:549/portico/config/json/bmcApi.json");
  for (const auto& c : cases) {
    BmcHttpConnection::_bmcJsonUpdated = false;
    PorticoFaults(std::string("[\"") + c.fault + "\"]");
    EXPECT_EQ(bmc->UpdateBmcApiJson(""), c.result) << c.fault;
    EXPECT_FALSE(BmcHttpConnection::_bmcJsonUpdated) << c.fault;
  }
  // A failed creation leaves nothing behind; the next one tries again.
  BmcHttpConnection::_bmcJsonUpdated = false;
  PorticoFaults(R"(["get=503@1"])");
  EXPECT_THROW(BmcRedfishConnection("", "admin", "secret", logger), int);
  EXPECT_NO_THROW(BmcRedfishConnection("", "admin", "secret", logger));
}

TEST_F(Proxy, RequestsThroughTheProxyCarryTheirHeaders) {
  if (Env("E2E_SMBIOS") == "ipv6") GTEST_SKIP();
  BmcRedfishConnection connection("", Env("BMC_USER"), Env("BMC_PASSWORD"), logger);
  std::string body;
  ASSERT_EQ(connection.MakeHttpRequestGet("/bmc/redfish/v1/Systems", body, 5000ms), 0);
  EXPECT_NE(body.find("\"Members\""), std::string::npos);
  body.clear();
  EXPECT_EQ(connection.MakeHttpRequestPost("/bmc/redfish/v1/Systems", "{}", body, false, 5000ms),
            405);
  body.clear();
  EXPECT_EQ(connection.MakeHttpRequestDelete("/bmc/redfish/v1/Systems", body, 5000ms), 405);

  auto log = Log(Env("EMULATOR_LOG"));
  ASSERT_GE(log.size(), 3u);
  const Entry& get = log[log.size() - 3];
  const Entry& post = log[log.size() - 2];
  const Entry& del = log[log.size() - 1];
  const std::string basic = "Basic YWRtaW46c2VjcmV0";
  EXPECT_EQ(get.method, "GET");
  EXPECT_EQ(get.Header("Authorization"), basic);
  EXPECT_EQ(get.Header("Accept"), "application/json");
  EXPECT_EQ(post.method, "POST");
  EXPECT_EQ(post.Header("Authorization"), basic);
  EXPECT_EQ(post.Header("Content-Type"), "application/json");
  EXPECT_EQ(post.body, "{}");
  EXPECT_EQ(del.method, "DELETE");
  EXPECT_EQ(del.Header("Authorization"), basic);

  BmcRedfishConnection wrong("", "admin", "wrong", logger);
  body.clear();
  EXPECT_EQ(wrong.MakeHttpRequestGet("/bmc/redfish/v1/Systems", body, 5000ms), 40005);
}
