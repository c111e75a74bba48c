#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <thread>

#include "bmcredfish.h"
#include "platform/feature_state.h"
#include "tests/fakes/fake_sysinfo.h"
#include "tests/unit/test_support.h"
#include "transport/bmc_http_connection.h"
#include "utils/redfish_status.h"

using redfish::BmcHttpConnection;
using test_support::LogCapture;
using test_support::ScriptedBmc;

namespace {

const char kMac[] = "AA:BB:CC:DD:EE:01";

struct Api : testing::Test {
  Api() {
    FeatureState_Init();
    *GetFeatureState_Slow("REDFISH") = 1;
    fake_sysinfo::SetIpv4(127, 0, 42, 1);
    bmc.Json("/portico/config/json/bmcApi.json", "{}", 404)
        .OnMethod(Tessel::Http::Put, "/portico/config/json/bmcApi.json", fake_http::Json(204, ""))
        .Json("/bmc/redfish/v1/Managers", R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1"}]})")
        .Json("/bmc/redfish/v1/Managers/1/EthernetInterfaces",
              R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1/EthernetInterfaces/1"}]})")
        .Json("/bmc/redfish/v1/Managers/1/EthernetInterfaces/1/?$select=MACAddress",
              std::string(R"({"MACAddress":")") + kMac + "\"}")
        .Json("/bmc/redfish/v1/Systems", R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})")
        .Json("/bmc/redfish/v1/Systems/1/?$select=Manufacturer", R"({"Manufacturer":"Dell Inc."})")
        .Json(
            "/bmc/redfish/v1/Systems/1/?$select=Actions",
            R"({"Actions":{"#ComputerSystem.Reset":{"target":"/r","ResetType@Redfish.AllowableValues":["On"]}}})")
        .Json("/bmc/redfish/v1/Systems/1/?$select=PowerState", R"({"PowerState":"On"})")
        .Json("/bmc/r", "", 204)
        .Json("/bmc/redfish/v1/Chassis", R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1"}]})")
        .Json("/bmc/redfish/v1/Chassis/1/Sensors", "{}")
        .Json("/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)", R"({"Members":[1,2,3,4]})");
    bmc.Install();
  }
  ~Api() override { cleanup(); }
  // One round of the three queries on the local host; returns how many failed.
  static int QueryRound() {
    bool on = false;
    char buffer[64];
    unsigned int length = sizeof buffer;
    int failures = Redfish_GetPowerState("u", "p", nullptr, 100, &on) != 0 || !on;
    failures += Redfish_GetMacAddress("u", "p", nullptr, kMac, 100, buffer, &length) != 0;
    length = sizeof buffer;
    return failures + (Redfish_GetSensorsInfo("u", "p", nullptr, 100, buffer, &length) != 0);
  }
  static int Posts() {
    int n = 0;
    for (const auto& r : fake_http::Requests()) n += r.method == Tessel::Http::Post;
    return n;
  }
  ScriptedBmc bmc;
  LogCapture log;
};

}  // namespace

TEST_F(Api, SwitchOffRefusesEverythingEvenAfterInitialisation) {
  EXPECT_EQ(Redfish_Initialize(), 0);
  *GetFeatureState_Slow("REDFISH") = 0;
  bool on = false;
  unsigned int length = 0;
  EXPECT_EQ(Redfish_Initialize(), 1);
  EXPECT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on), 1);
  EXPECT_EQ(Redfish_GetSensorsInfo("u", "p", nullptr, 100, nullptr, &length), 1);
  EXPECT_EQ(Redfish_GetMacAddress("u", "p", nullptr, nullptr, 100, nullptr, &length), 1);
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, kMac, REDFISHCMD_ON, 100), 1);
  EXPECT_TRUE(fake_http::Requests().empty());
}

TEST_F(Api, HostKeysShareOrSeparateConnections) {
  bool on = false;
  EXPECT_EQ(Redfish_GetPowerState("admin", "secret", nullptr, 100, &on), 0);
  EXPECT_TRUE(on);
  EXPECT_TRUE(log.Has(5, "Creating new Redfish Connection for 'localhost'"));
  EXPECT_EQ(Redfish_GetPowerState("other", "creds", "localhost", 100, &on), 0);
  EXPECT_TRUE(log.Has(5, "Using EXISTING Redfish Connection for 'localhost'"));
  auto requests = fake_http::Requests();
  EXPECT_EQ(requests.back().Header("Authorization"), "Basic YWRtaW46c2VjcmV0")
      << "first credentials kept";

  Redfish_CloseConnection("unknown");
  Redfish_CloseConnection(nullptr);
  log.Clear();
  EXPECT_EQ(Redfish_GetPowerState("admin", "secret", "localhost", 100, &on), 0);
  EXPECT_TRUE(log.Has(5, "Creating new Redfish Connection for 'localhost'"));
}

TEST_F(Api, FailedCreationIsLoggedAndRetriedButCredentialFailureThrows) {
  fake_sysinfo::Current().record[4] = 0;  // no IPv4 address in the SMBIOS record
  bool on = false;
  EXPECT_EQ(Redfish_GetPowerState("u", "p", "", 100, &on), 30001);
  EXPECT_TRUE(log.Has(3, "Failed to create Redfish Connection for BMC from Korva host: 30001"));
  EXPECT_EQ(Redfish_GetPowerState("u", "p", nullptr, 100, &on), 30001);
  EXPECT_TRUE(log.Has(3, "Failed to create Redfish Connection for localhost: 30001"));
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

TEST_F(Api, PowerOperationIsGuardedByTheMac) {
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, "aa:bb:cc:dd:ee:01", REDFISHCMD_ON, 100),
            40001);
  EXPECT_TRUE(log.Has(3, "No NIC found with MAC addr: aa:bb:cc:dd:ee:01"));
  log.Clear();
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, "", REDFISHCMD_ON, 100), 40001)
      << "an empty MAC is searched like any other";
  EXPECT_TRUE(log.Has(3, "No NIC found with MAC addr: "));
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, nullptr, REDFISHCMD_ON, 100), 40002);
  EXPECT_EQ(Posts(), 0);
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, kMac, REDFISHCMD_FORCE_OFF, 100), 40003);
  EXPECT_EQ(Posts(), 0);
  EXPECT_EQ(Redfish_PowerOperation("u", "p", nullptr, kMac, REDFISHCMD_ON, 100), 204)
      << "Dell 204 is not 200";
  EXPECT_EQ(Posts(), 1);
}

TEST_F(Api, ManyThreadsOnOneHost) {
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) failures += QueryRound();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, 0);
  auto requests = ScriptedBmc::Targets();
  EXPECT_EQ(std::count(requests.begin(), requests.end(), "/bmc/redfish/v1/Systems"), 1)
      << "discovered once";
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

// Callers and closers race; under ASan or TSan a freed connection in use, a
// double unlock or a data race fails the test even when every result is right.
TEST_F(Api, CloseAndCleanupRaceWithCallsOnOneHost) {
  std::atomic<int> failures{0};
  std::atomic<int> closes{0};
  std::atomic<int> callersLeft{16};
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      // Each caller keeps going until the closers have closed many times.
      for (int i = 0; i < 5 || closes.load() < 200; ++i) failures += QueryRound();
      --callersLeft;
    });
  }
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      while (callersLeft.load() > 0) {
        if (t == 0) {
          Redfish_CloseConnection(nullptr);
        } else {
          cleanup();
        }
        ++closes;
        std::this_thread::yield();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GE(closes.load(), 200);
}
