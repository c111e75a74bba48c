#include <gtest/gtest.h>

#include "connection/bmc_redfish_connection.h"
#include "resources/inventory.h"
#include "tests/fakes/fake_sysinfo.h"
#include "tests/unit/test_support.h"

using redfish::BmcHttpConnection;
using redfish::BmcRedfishConnection;
using test_support::LogCapture;
using test_support::ScriptedBmc;
using namespace std::chrono_literals;

namespace {

const char kSystems[] = R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})";
const char kActions[] =
    R"({"Actions":{"#ComputerSystem.Reset":{"target":"/redfish/v1/Systems/1/Actions/ComputerSystem.Reset",
  "ResetType@Redfish.AllowableValues":["On","ForceOff","GracefulShutdown","ForceRestart","Nmi","PushPowerButton","GracefulRestart","Bogus"]}}})";

struct Resources : testing::Test {
  Resources() : logger(Tessel::Service::CreateLogger("Redfish")) {
    logger->SetLevel(6);
    BmcHttpConnection::_bmcJsonUpdated = true;
    connection = std::make_unique<BmcRedfishConnection>("", "admin", "secret", logger);
  }
  // A fresh connection (cold discovery) to one system of that manufacturer,
  // whose reset is answered 204.
  ScriptedBmc& System(const char* manufacturer, const std::string& actions = kActions) {
    connection = std::make_unique<BmcRedfishConnection>("", "admin", "secret", logger);
    bmc.Json("/bmc/redfish/v1/Systems", kSystems)
        .Json("/bmc/redfish/v1/Systems/1/?$select=Manufacturer",
              std::string(R"({"Manufacturer":")") + manufacturer + "\"}")
        .Json("/bmc/redfish/v1/Systems/1/?$select=Actions", actions)
        .Json("/bmc/redfish/v1/Systems/1/?$select=PowerState", R"({"PowerState":"On"})")
        .Json("/bmc/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "", 204)
        .Install();
    return bmc;
  }
  int PostCount() {
    int n = 0;
    for (const auto& r : fake_http::Requests()) n += r.method == Tessel::Http::Post;
    return n;
  }
  Tessel::Ref<Tessel::Service::Logger> logger;
  std::unique_ptr<BmcRedfishConnection> connection;
  ScriptedBmc bmc;
  LogCapture log;
};

}  // namespace

TEST_F(Resources, ResetBodyAndVendorNoActionStatuses) {
  const struct {
    const char* manufacturer;
    int status;
    int result;
  } cases[] = {{"Dell Inc.", 409, 40006}, {"HPE", 400, 40006}, {"HPE", 409, 409},
               {"Dell Inc.", 204, 204},   {"HPE", 200, 0},     {"Dell Inc.", 500, 500}};
  for (const auto& c : cases) {
    System(c.manufacturer)
        .Json("/bmc/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", R"({"error":{"code":"x"}})",
              c.status);
    EXPECT_EQ(connection->PowerOperation(REDFISHCMD_ON, 500ms, 0), c.result)
        << c.manufacturer << c.status;
    EXPECT_EQ(fake_http::Requests().back().waitLimitUs, 4000000) << "the reset always gets 4 s";
    EXPECT_EQ(PostCount(), 1) << "never sent twice";
  }
}

TEST_F(Resources, FailedDiscoveryIsRetriedAndAppendsAgain) {
  bmc.Json(
         "/bmc/redfish/v1/Chassis",
         R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1"},{"@odata.id":"/redfish/v1/Chassis/2"},{"@odata.id":"/redfish/v1/Chassis/3"}]})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors", R"({"Members":[]})")
      .Json("/bmc/redfish/v1/Chassis/2/Sensors", "{}", 404)
      .Json("/bmc/redfish/v1/Chassis/3/Sensors", "{}", 500)
      .Json("/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)",
            R"({"Members":[{"Reading":1}]})");
  bmc.Install();
  std::string info;
  EXPECT_EQ(connection->GetChassisSensorInfo(info, 500ms, 0), 500);
  EXPECT_EQ(redfish::InventoryOf(*connection).chassis.size(), 1u);
  bmc.Json("/bmc/redfish/v1/Chassis/3/Sensors", "{}", 404);
  bmc.Install();
  EXPECT_EQ(connection->GetChassisSensorInfo(info, 500ms, 0), 0);
  EXPECT_EQ(info, R"({"Members":[{"Reading":1}]})");
  ASSERT_EQ(redfish::InventoryOf(*connection).chassis.size(), 2u)
      << "the first walk's record stays";
  EXPECT_EQ(redfish::InventoryOf(*connection).chassis[1].sensorsUri,
            "/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)");
  EXPECT_EQ(connection->GetChassisSensorInfo(info, 500ms, 2), 40001);
}

TEST_F(Resources, SensorBodyMustBeAnObject) {
  bmc.Json("/bmc/redfish/v1/Chassis", R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1"}]})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors", "{}");
  for (const auto& [body, result] : std::vector<std::pair<std::string, int>>{
           {"{}", 0}, {"[]", 20004}, {R"({"error":{"code":"x"}})", 0}, {"", 20004}}) {
    bmc.Json("/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)", body);
    bmc.Install();
    std::string info = "old";
    EXPECT_EQ(connection->GetChassisSensorInfo(info, 500ms, 0), result) << body;
    EXPECT_EQ(info, result == 0 ? body : "old");
  }
}
