// What a hostile BMC can make the library send, throw or skip.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bmcredfish.h"
#include "connection/request_target.h"
#include "tests/hostile_ids.h"
#include "tests/unit/test_support.h"
#include "transport/bmc_http_connection.h"
#include "utils/redfish_status.h"

using redfish::UnsafeRequestTarget;
using test_support::ScriptedBmc;
namespace Http = Tessel::Http;

// The path rules are the HTTP client's (its Arguments test); here the route.
TEST(RequestTarget, OnlyPathsUnderTheBmcRoutePass) {
  for (const char* safe : {"/bmc/redfish/v1/Systems", "/bmc/"}) {
    EXPECT_EQ(UnsafeRequestTarget(safe), nullptr) << safe;
  }
  for (const char* unsafe : {"/bmc", "/bmcx/y", "/portico/config/json/bmcApi.json", "bmc/x",
                             "http://evil/bmc/", "/bmc/../portico", "/bmc/a%5cb"}) {
    EXPECT_NE(UnsafeRequestTarget(unsafe), nullptr) << unsafe;
  }
}

namespace {

// No route update: the configuration endpoint is not under /bmc/, and every
// request sent is checked to be.
struct HostileBmc : test_support::ApiTest {
  HostileBmc() { redfish::BmcHttpConnection::_bmcJsonUpdated = true; }
};
constexpr auto& kMac = HostileBmc::kMac;

}  // namespace

TEST_F(HostileBmc, IdsThatCouldLeaveTheRouteAreRefusedBeforeSending) {
  struct Place {
    const char* collection;
    const char* plainId;
    int (*call)();
  };
  const Place places[] = {
      {"/bmc/redfish/v1/Systems", "/redfish/v1/Systems/1",
       [] {
         bool on;
         return Redfish_GetPowerState("u", "p", nullptr, 100, &on);
       }},
      {"/bmc/redfish/v1/Managers", "/redfish/v1/Managers/1",
       [] { return Redfish_GetMacAddress("u", "p", nullptr, nullptr, 100, nullptr, nullptr); }},
      {"/bmc/redfish/v1/Managers/1/EthernetInterfaces",
       "/redfish/v1/Managers/1/EthernetInterfaces/1",
       [] { return Redfish_GetMacAddress("u", "p", nullptr, kMac, 100, nullptr, nullptr); }},
      {"/bmc/redfish/v1/Chassis", "/redfish/v1/Chassis/1",
       [] { return Redfish_GetSensorsInfo("u", "p", nullptr, 100, nullptr, nullptr); }},
  };
  for (const Place& place : places) {
    for (const std::string& id : hostile::kIds) {
      Members(place.collection, id);
      bmc.Install();
      log.Clear();
      EXPECT_EQ(place.call(), redfish::RedfishStatusInvalidArgument)
          << place.collection << " " << Quoted(id);
      EXPECT_TRUE(log.HasPrefix(3, "GET: refused request target '/bmc" + id.substr(0, 1)))
          << place.collection << " " << Quoted(id);
      for (const auto& target : ScriptedBmc::Targets()) {
        EXPECT_EQ(UnsafeRequestTarget(target), nullptr) << "sent " << Quoted(target);
      }
      cleanup();
    }
    Members(place.collection, place.plainId);
  }
}

// A target longer than the proxy takes would make it end the connection all
// callers share: refused unsent, like an unsafe id. One at the bound is sent.
TEST_F(HostileBmc, TargetsLongerThanTheProxyTakesAreRefusedBeforeSending) {
  const std::string base = "/redfish/v1/";
  const std::string atBound = base + std::string(8000 - 4 - base.size(), 'a');  // "/bmc" too
  bmc.Json("/bmc" + atBound, "{}");
  bmc.Install();
  char* json = nullptr;
  EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, atBound.c_str(), 100, &json), 0);
  Redfish_FreeText(json);
  for (size_t size : {atBound.size() + 1, size_t{16} << 10, size_t{64} << 10}) {
    log.Clear();
    const std::string path = base + std::string(size - base.size(), 'a');
    EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, path.c_str(), 100, &json), 10002) << size;
    EXPECT_TRUE(log.HasPrefix(3, "GET: refused request target '/bmc/redfish/v1/aaa")) << size;
  }
  for (const auto& target : ScriptedBmc::Targets()) EXPECT_LE(target.size(), 8000u);
}

TEST_F(HostileBmc, EmptyMacIsSearchedButAnEmptyAnswerNeverResets) {
  // An empty MAC is searched like any other (the end-to-end tests); a manager
  // without interfaces ends the search as a success with no MAC.
  cleanup();
  bmc.Json("/bmc/redfish/v1/Managers/1/EthernetInterfaces", R"({"Members":[]})");
  bmc.Install();
  log.Clear();
  for (const char* mac : {"", kMac}) {
    EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, mac, REDFISHCMD_ON, 100),
              redfish::RedfishStatusMacMismatch)
        << mac;
    EXPECT_TRUE(log.Has(3, std::string("Invalid MAC address (") + mac + "). Expected ()")) << mac;
  }
  for (const auto& r : fake_http::Requests()) EXPECT_NE(r.method, Http::Post);

  fake_sysinfo::Current().record[4] = 0;  // no BMC address: the connection's failure comes back
  cleanup();
  redfish::BmcHttpConnection::_bmcJsonUpdated = false;
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, "", REDFISHCMD_ON, 100),
            redfish::RedfishStatusNoBmcAddress);
}

TEST_F(HostileBmc, RouteDocumentThatCannotBeWrittenBackFailsTheUpdate) {
  redfish::BmcHttpConnection::_bmcJsonUpdated = false;
  // Parses, but the number is infinity, which JSON cannot write.
  bmc.Json("/portico/config/json/bmcApi.json",
           R"({"proxy_configuration":{"clusters":[{"endpoints":[{"socket_address":)"
           R"({"address":"","port_value":1.7976931348623158e308}}]}]}})");
  bmc.Install();
  bool on = false;
  EXPECT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on), redfish::RedfishStatusBadJson);
  EXPECT_TRUE(log.HasPrefix(3, "Cannot serialise /portico/config/json/bmcApi.json"));
  for (const auto& r : fake_http::Requests()) EXPECT_NE(r.method, Http::Put);
  EXPECT_FALSE(redfish::BmcHttpConnection::_bmcJsonUpdated.load());
}

TEST_F(HostileBmc, DeeplyNestedErrorObjectIsLoggedWithoutRecursion) {
  // Parsing is iterative; writing a value back out for the log is not.
  const std::string deep(200000, '[');
  bmc.Json("/bmc/redfish/v1/Systems/1/?$select=PowerState",
           R"({"error":{"code":)" + deep + std::string(200000, ']') + "}}");
  bmc.Install();
  bool on = false;
  EXPECT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on),
            redfish::RedfishStatusUnexpectedJson);
  EXPECT_TRUE(log.Has(3, "Redfish Error Detected: Code='(nested too deeply)'"));
}
