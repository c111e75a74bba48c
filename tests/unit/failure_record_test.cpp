// What Redfish_GetLastFailure names for each broken link, and the 1.1 calls
// that read what the library keeps.

#include <gtest/gtest.h>

#include <cstring>

#include "tests/unit/test_support.h"
#include "transport/bmc_http_connection.h"

using Api = test_support::ApiTest;
namespace Http = Tessel::Http;

namespace {

constexpr char kRoute[] = "/portico/config/json/bmcApi.json";
constexpr char kState[] = "/bmc/redfish/v1/Systems/1/?$select=PowerState";

RedfishFailure LastFailure() {
  RedfishFailure f;
  std::memset(&f, 0x7f, sizeof f);
  f.size = sizeof f;
  EXPECT_EQ(Redfish_GetLastFailure(&f), 0);
  return f;
}

}  // namespace

// The links doctor-test breaks on a real host (the proxy or the configuration
// endpoint down, a refused password...) are checked there; here what the
// record says of each answer.
TEST_F(Api, LastFailureNamesTheLinkThatBroke) {
  const auto redfishError =
      fake_http::Json(503, R"({"error":{"code":"Base.1.0.GeneralError","message":"general",
        "@Message.ExtendedInfo":[{"Message":"The service is temporarily unavailable."}]}})");
  const auto proxyPage = fake_http::Json(
      502, "<html><head><title>502 Bad Gateway</title></head><body>nginx</body></html>");
  const struct {
    const char* name;
    const char* target;  // scripted for this case only; "" for none
    fake_http::Reply reply;
    bool noIpv4;
    int result;
    RedfishLink link;
    int status;
    const char* uri;
    const char* detail;  // a part of it
  } cases[] = {
      {"no IPv4 in SMBIOS", "", {}, true, 30001, REDFISH_LINK_SMBIOS, 0, "", "no IPv4"},
      {"config endpoint 503", kRoute, fake_http::Json(503, "busy"), false, 503,
       REDFISH_LINK_CONFIG_ENDPOINT, 0, kRoute, "answered 503"},
      {"route not JSON", kRoute, fake_http::Json(200, "garbage"), false, 20001,
       REDFISH_LINK_ROUTE_DOCUMENT, 0, kRoute, "not JSON"},
      {"BMC's Redfish error", kState, redfishError, false, 503, REDFISH_LINK_BMC, 503, kState,
       "the BMC: The service is temporarily unavailable."},
      {"proxy cannot reach the BMC", kState, proxyPage, false, 502, REDFISH_LINK_BMC, 502, kState,
       "the proxy: 502 Bad Gateway"},
      {"proxy's own page", kState, fake_http::Json(404, "<html><title>404 Not Found</title>"),
       false, 404, REDFISH_LINK_PROXY, 404, kState, "the proxy: 404 Not Found"},
      {"slow BMC", kState, fake_http::Throw<Tessel::TimeoutException>("late"), false, 10003,
       REDFISH_LINK_BMC, 0, kState, "no answer within 100 ms"},
      {"not a document", kState, fake_http::Json(200, "[]"), false, 20004, REDFISH_LINK_DOCUMENT, 0,
       kState, ""},
      {"unknown maker", "/bmc/redfish/v1/Systems/1/?$select=Manufacturer",
       fake_http::Json(200, R"({"Manufacturer":"Contoso"})"), false, 2, REDFISH_LINK_DISCOVERY, 0,
       "/bmc/redfish/v1/Systems/1/?$select=Manufacturer", "'Contoso'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Script();
    if (*c.target) bmc.On(c.target, c.reply);
    bmc.Install();
    fake_sysinfo::Current().record[4] = c.noIpv4 ? 0 : 1;
    redfish::BmcHttpConnection::_bmcJsonUpdated = false;
    bool on = false;
    EXPECT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on), c.result);
    const RedfishFailure f = LastFailure();
    EXPECT_EQ(f.result, c.result);
    EXPECT_EQ(f.link, c.link);
    EXPECT_EQ(f.httpStatus, c.status);
    EXPECT_STREQ(f.uri, c.uri);
    EXPECT_NE(std::string(f.detail).find(c.detail), std::string::npos) << f.detail;
    cleanup();
  }
  Script();
  fake_sysinfo::Current().record[4] = 1;

  bool on = false;
  ASSERT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on), 0);
  EXPECT_EQ(LastFailure().link, REDFISH_LINK_NONE) << "a success clears the account";
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, kMac, REDFISHCMD_FORCE_OFF, 100), 40003);
  EXPECT_EQ(LastFailure().link, REDFISH_LINK_GUARD);
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, "aa:aa:aa:aa:aa:aa", REDFISHCMD_ON, 100),
            40001);
  EXPECT_STREQ(LastFailure().detail, "no BMC interface has the MAC address aa:aa:aa:aa:aa:aa");

  // An older caller's shorter struct gets what fits, its last text ended.
  RedfishFailure small;
  std::memset(&small, 0x7f, sizeof small);
  small.size = offsetof(RedfishFailure, uri) + 10;
  ASSERT_EQ(Redfish_GetLastFailure(&small), 0);
  EXPECT_EQ(small.result, 40001);
  EXPECT_EQ(std::strlen(small.uri), 9u);
  EXPECT_EQ(small.detail[0], 0x7f) << "nothing written past the caller's size";
  small.size = offsetof(RedfishFailure, link);
  EXPECT_EQ(Redfish_GetLastFailure(&small), 10002);
  EXPECT_EQ(Redfish_GetLastFailure(nullptr), 10002);
}

TEST_F(Api, CommandsAndResourcesAreReadWithoutSendingCommands) {
  char* json = nullptr;
  unsigned int commands = 0;
  EXPECT_EQ(Redfish_GetAllowedCommands("u", "p", nullptr, 100, &commands), 0);
  EXPECT_EQ(commands, 1u << REDFISHCMD_ON);
  EXPECT_EQ(Redfish_GetAllowedCommands("u", "p", nullptr, 100, nullptr), 10002);

  EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, "/redfish/v1/Systems", 100, &json), 0);
  EXPECT_NE(std::string(json).find("/redfish/v1/Systems/1"), std::string::npos);
  Redfish_FreeText(json);
  for (const char* outside : {"/redfish/v2", "/bmc/x", "redfish/v1", "/redfish/v1/../../x"}) {
    EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, outside, 100, &json), 10002) << outside;
    EXPECT_EQ(json, nullptr);
  }
  EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, nullptr, 100, &json), 10002);
  EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, "/redfish/v1", 100, nullptr), 10002);
  bmc.Json("/bmc/redfish/v1/x", "[]").Json("/bmc/redfish/v1/y", "{").Install();
  EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, "/redfish/v1/x", 100, &json), 20004);
  EXPECT_EQ(Redfish_GetResource("u", "p", nullptr, "/redfish/v1/y", 100, &json), 20002);
  EXPECT_EQ(Posts(), 0);
}
