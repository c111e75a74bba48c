// The transport and the connection against the real proxy stand-in and BMC
// emulator, through the classes the library exports. Run by tools/host-sim.
#include "it_support.h"
#include "transport/bmc_http_connection.h"

using it::Env;
using it::ReadLog;
using redfish::BmcHttpConnection;

namespace {

void Shell(const std::string& cmd) { ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd; }

void PorticoFaults(const std::string& json) {
  Shell("curl -s --http2-prior-knowledge -o /dev/null -X PUT --data '" + json + "' " +
        Env("PORTICO_CONTROL") + "/faults");
}

std::string Document(const std::string& address) {
  return R"({"proxy_configuration":{"clusters":[{"name":"bmc-cluster","endpoints":[{"socket_address":{"address":")" +
         address + R"(","port_value":443}}]}]},"kept":{"a":[1,2]}})";
}

// Puts a route document naming address, as another user of the proxy would.
void PutDocument(const std::string& address) {
  Shell("curl -s --http2-prior-knowledge -o /dev/null -X PUT --data '" + Document(address) +
        "' http://127.0.0.1:549/portico/config/json/bmcApi.json");
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

// Run alone in a fresh emulated host (see CMakeLists.txt), whose proxy has no
// document yet: the first update writes the template.
TEST_F(Proxy, MissingDocumentIsWrittenFromTheTemplate) {
  ASSERT_EQ(bmc->UpdateBmcApiJson(""), 0);
  auto log = ReadLog(Env("PORTICO_LOG"));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].status, 404);
  EXPECT_EQ(log[1]["method"], "PUT");
  EXPECT_EQ(log[1].Header("Content-Type"), "application/json");
  // HTTP/1.1 without a pool: the headers given, and Host, Content-Length and
  // Connection, the protocol's own; no Accept.
  auto names = [](const it::Logged& l) {
    std::vector<std::string> out;
    for (const auto& header : l.headers) out.push_back(header.first);
    return out;
  };
  EXPECT_EQ(names(log[0]), (std::vector<std::string>{"connection", "host"}));
  EXPECT_EQ(names(log[1]),
            (std::vector<std::string>{"connection", "content-length", "content-type", "host"}));
  EXPECT_EQ(log[1]["body"].compare(0, kCompactTemplatePrefix.size(), kCompactTemplatePrefix), 0)
      << log[1]["body"];
  EXPECT_NE(log[1]["body"].find(R"({"address":")" + Env("BMC_ADDR") + R"(","port_value":443})"),
            std::string::npos);
  EXPECT_TRUE(BmcHttpConnection::_bmcJsonUpdated);
  EXPECT_EQ(bmc->UpdateBmcApiJson("10.9.9.9"), 0);
  EXPECT_EQ(ReadLog(Env("PORTICO_LOG")).size(), 2u) << "nothing is sent once the flag is set";
}

// Which documents are left alone and which replaced is the unit tests'; here
// the real endpoint's failures.
TEST_F(Proxy, ProxyFailuresAreReportedAndLeaveTheFlagDown) {
  const struct {
    const char* fault;
    int result;
  } cases[] = {{"get=503@1", 503}, {"put=200@1", 200}, {"big@1", 20001}, {"garbage@1", 20001}};
  PutDocument("127.0.0.9");
  for (const auto& c : cases) {
    BmcHttpConnection::_bmcJsonUpdated = false;
    PorticoFaults(std::string("[\"") + c.fault + "\"]");
    EXPECT_EQ(bmc->UpdateBmcApiJson(""), c.result) << c.fault;
    EXPECT_FALSE(BmcHttpConnection::_bmcJsonUpdated) << c.fault;
  }
}
