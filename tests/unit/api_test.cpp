#include <gtest/gtest.h>

#include <cstring>
#include <future>

#include "bmcredfish.h"
#include "platform/feature_state.h"
#include "tests/unit/test_support.h"
#include "transport/bmc_http_connection.h"
#include "utils/redfish_status.h"

using test_support::ScriptedBmc;

using Api = test_support::ApiTest;
constexpr auto& kMac = Api::kMac;

TEST_F(Api, FailedCreationIsLoggedAndRetriedButCredentialFailureThrows) {
  redfish::BmcHttpConnection::_bmcJsonUpdated = false;
  fake_sysinfo::Current().record[4] = 0;  // no IPv4 address in the SMBIOS record
  bool on = false;
  EXPECT_EQ(Redfish_GetPowerState("u", "p", "", 100, &on), 30001);
  EXPECT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on), 30001);
  EXPECT_TRUE(fake_http::Requests().empty());

  bmc.Json("/portico/config/json/bmcApi.json", "{}", 503);
  bmc.Install();
  EXPECT_EQ(Redfish_GetPowerState("u", "p", "10.0.0.1", 100, &on), 503)
      << "a named host needs no discovery";
  bmc.Json("/portico/config/json/bmcApi.json", "{}", 404);
  bmc.Install();
  EXPECT_EQ(Redfish_GetPowerState("u", "p", "10.0.0.1", 100, &on), 0)
      << "the next call tries again";
  EXPECT_EQ(Redfish_GetPowerState("u", "p", "", 100, &on), 0)
      << "the route is set once per process";

  const std::string longUser(400, 'u');
  EXPECT_THROW(Redfish_GetPowerState(longUser.c_str(), "p", "10.0.0.2", 100, &on),
               redfish::RedfishStatus);
  EXPECT_EQ(Redfish_GetPowerState("u", "p", "10.0.0.2", 100, &on), 0)
      << "the registry lock was released";
}

TEST_F(Api, StringOutputsFollowTheirTwoLengthConventions) {
  unsigned int length = 0;
  ASSERT_EQ(Redfish_GetSensorsInfo("u", "p", nullptr, 100, nullptr, &length), 0);
  EXPECT_EQ(length, 21u);  // {"Members":[1,2,3,4]}
  char small[10];
  length = sizeof small;
  ASSERT_EQ(Redfish_GetSensorsInfo("u", "p", nullptr, 100, small, &length), 0);
  EXPECT_STREQ(small, "{\"Members");
  EXPECT_EQ(length, 21u);

  char mac[32];
  length = sizeof mac;
  ASSERT_EQ(Redfish_GetMacAddress("u", "p", nullptr, nullptr, 100, mac, &length), 0);
  EXPECT_STREQ(mac, kMac);
  EXPECT_EQ(length, 18u);
  length = 5;
  ASSERT_EQ(Redfish_GetMacAddress("u", "p", nullptr, kMac, 100, mac, &length), 0);
  EXPECT_STREQ(mac, "AA:B");
  EXPECT_EQ(length, 5u);
}

// Which MACs refuse what is the end-to-end tests'; here the lines the
// refusals log and the null MAC, which no C caller of those tests passes.
TEST_F(Api, PowerOperationIsGuardedByTheMac) {
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, "aa:bb:cc:dd:ee:01", REDFISHCMD_ON, 100),
            40001);
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, nullptr, REDFISHCMD_ON, 100), 40002);
  EXPECT_EQ(Posts(), 0);
}

TEST_F(Api, ClosingAHostDoesNotFreeTheConnectionOfACallInFlight) {
  std::promise<void> closed;
  std::shared_future<void> closedNow = closed.get_future().share();
  std::promise<void> inFlight;
  fake_http::Reply state = fake_http::Json(200, R"({"PowerState":"On"})");
  fake_http::SetHandler([&](const fake_http::Request& r) {
    if (r.target == "/bmc/redfish/v1/Systems/1/?$select=PowerState") {
      inFlight.set_value();
      closedNow.wait();
      return state;
    }
    if (r.target == "/portico/config/json/bmcApi.json")
      return fake_http::Json(r.method == Tessel::Http::Put ? 204 : 404, "");
    if (r.target == "/bmc/redfish/v1/Systems")
      return fake_http::Json(200, R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})");
    if (r.target == "/bmc/redfish/v1/Systems/1/?$select=Manufacturer")
      return fake_http::Json(200, R"({"Manufacturer":"Dell Inc."})");
    return fake_http::Json(
        200,
        R"({"Actions":{"#ComputerSystem.Reset":{"target":"/r","ResetType@Redfish.AllowableValues":["On"]}}})");
  });

  bool on = false;
  std::future<int> call = std::async(
      std::launch::async, [&] { return Redfish_GetPowerState("u", "p", nullptr, 100, &on); });
  ASSERT_EQ(inFlight.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  Redfish_CloseConnection(nullptr);
  cleanup();
  closed.set_value();
  EXPECT_EQ(call.get(), 0);
  EXPECT_TRUE(on);
}
