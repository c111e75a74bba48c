// The pure readers of BMC documents, over real BMCs' payloads.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "resources/documents.h"
#include "resources/readings.h"
#include "utils/json_access.h"

using namespace redfish;

namespace {

std::string Sample(const std::string& name) {
  std::ifstream in(std::string(REDFISH_SAMPLES) + "/" + name);
  EXPECT_TRUE(in) << name;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

rapidjson::Document Parsed(const std::string& text) {
  rapidjson::Document document;
  ParseJson(document, text);
  return document;
}

// An expanded Sensors collection made of sensor payloads.
std::string Expanded(std::initializer_list<const char*> sensors) {
  std::string members;
  for (const char* name : sensors) members += (members.empty() ? "" : ",") + Sample(name);
  return R"({"Members":[)" + members + "]}";
}

}  // namespace

TEST(Documents, SystemsOfRealBmcs) {
  const struct {
    const char* file;
    const char* manufacturer;
    const char* target;
    const char* actionInfo;
    size_t commands;  // allowable values the library knows, read on the system
  } cases[] = {
      {"dell/libredfish-dell-System.json", "Dell Inc.",
       "/redfish/v1/Systems/System.Embedded.1/Actions/ComputerSystem.Reset", "", 8},
      {"hpe/libredfish-hpe-System.json", "HPE",
       "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "", 7},
      {"lenovo/libredfish-lenovo-System.json", "Lenovo",
       "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset",
       "/redfish/v1/Systems/1/ResetActionInfo", 7},
      {"dmtf/rackmount1-System-437XR1138R2.json", "Contoso",
       "/redfish/v1/Systems/437XR1138R2/Actions/ComputerSystem.Reset", "", 8},
  };
  for (const auto& c : cases) {
    const rapidjson::Document system = Parsed(Sample(c.file));
    std::string manufacturer, state;
    EXPECT_EQ(ManufacturerOf(system, manufacturer), 0);
    EXPECT_EQ(manufacturer, c.manufacturer);
    EXPECT_EQ(PowerStateOf(system, state), 0);
    EXPECT_EQ(state, "On");
    ResetAction action;
    ASSERT_EQ(ResetActionOf(system, action), 0) << c.file;
    EXPECT_EQ(action.target, c.target);
    EXPECT_EQ(action.actionInfo, c.actionInfo);
    const rapidjson::Value* values = nullptr;
    ASSERT_EQ(
        AllowableValuesAt(
            system, "/Actions/#ComputerSystem.Reset/ResetType@Redfish.AllowableValues", values),
        0);
    std::unordered_map<std::string, REDFISHCMD> commands;
    std::vector<std::string> seen;
    EXPECT_EQ(CommandsOf(*values, commands, seen), 0);
    EXPECT_EQ(commands.size(), c.commands) << c.file;
  }
  // A maker the library does not know still parses; one without any does not.
  std::string manufacturer;
  EXPECT_EQ(
      ManufacturerOf(Parsed(Sample("openbmc/libredfish-nvidia_dpu-System.json")), manufacturer), 0);
  EXPECT_EQ(manufacturer, "https://www.mellanox.com");
}

TEST(Documents, ActionInfoListsTheAllowableValues) {
  for (const char* file : {"lenovo/libredfish-lenovo-System-ResetActionInfo.json",
                           "dmtf/publications-telemetry-System-1-ResetActionInfo.json"}) {
    const rapidjson::Document info = Parsed(Sample(file));
    const rapidjson::Value* values = nullptr;
    ASSERT_EQ(AllowableValuesAt(info, "/Parameters/0/AllowableValues", values), 0) << file;
    std::unordered_map<std::string, REDFISHCMD> commands;
    std::vector<std::string> seen;
    EXPECT_EQ(CommandsOf(*values, commands, seen), 0);
    EXPECT_EQ(commands.at("ForceOn"), REDFISHCMD_FORCE_ON);
    EXPECT_EQ(commands.count("PowerCycle"), 0u);
  }
}

TEST(Documents, MalformedDocumentsGiveTheirCodes) {
  const rapidjson::Document notJson = Parsed("garbage");
  const rapidjson::Document array = Parsed("[1]");
  const rapidjson::Document empty = Parsed("{}");
  std::string text;
  std::vector<std::string> ids;
  ResetAction action;
  EXPECT_EQ(ManufacturerOf(notJson, text), 20004);
  EXPECT_EQ(ManufacturerOf(Parsed(R"({"Manufacturer":7})"), text), 2);
  EXPECT_EQ(PowerStateOf(array, text), 20004);
  EXPECT_EQ(MacAddressOf(empty, text), 20004);
  EXPECT_EQ(ResetActionOf(Parsed(R"({"Actions":{"#ComputerSystem.Reset":{"target":5}}})"), action),
            20004);
  EXPECT_EQ(MemberIds(Parsed(R"({"Members":[{"@odata.id":"/a"},5,{"@odata.id":"/b"}]})"), ids),
            20004);
  EXPECT_EQ(ids, std::vector<std::string>{"/a"}) << "members before the bad one are kept";

  // An ActionInfo without the values (Lenovo's flow through it is the end-to-end tests').
  const rapidjson::Value* values = nullptr;
  EXPECT_EQ(AllowableValuesAt(Parsed(R"({"Parameters":[{"Name":"ResetType"}]})"),
                              "/Parameters/0/AllowableValues", values),
            20001);
  std::unordered_map<std::string, REDFISHCMD> commands;
  std::vector<std::string> seen;
  EXPECT_EQ(CommandsOf(Parsed("{}"), commands, seen), 20004);
  EXPECT_EQ(CommandsOf(Parsed(R"(["On","Bogus",5,"Nmi"])"), commands, seen), 20004);
  EXPECT_EQ(commands.size(), 1u);
  EXPECT_EQ(seen, (std::vector<std::string>{"On", "Bogus"}));
}

TEST(Documents, MacAddressesAsTheBmcWritesThem) {
  const struct {
    const char* file;
    const char* mac;
  } cases[] = {
      {"dell/libredfish-dell-Manager-EthernetInterface-NIC.1.json", "b0:7b:25:d6:51:82"},
      {"hpe/libredfish-hpe-Manager-EthernetInterface-3.json", "0A:CA:FE:F0:0D:04"},
      {"lenovo/libredfish-lenovo-Manager-EthernetInterface-ToHost.json", "08:8f:c3:a5:8a:70"}};
  for (const auto& c : cases) {
    std::string mac;
    EXPECT_EQ(MacAddressOf(Parsed(Sample(c.file)), mac), 0);
    EXPECT_EQ(mac, c.mac);
  }
  std::vector<std::string> ids;
  EXPECT_EQ(MemberIds(Parsed(Sample("dell/libredfish-dell-Manager-EthernetInterfaces.json")), ids),
            0);
  EXPECT_EQ(ids, std::vector<std::string>{
                     "/redfish/v1/Managers/iDRAC.Embedded.1/EthernetInterfaces/NIC.1"});
}

TEST(Readings, SensorsOfRealBmcs) {
  const struct {
    std::string collection;
    size_t count;
    const char* id;
    double reading;
    const char* units;
  } cases[] = {
      {Expanded({"dell/libredfish-dell-Sensor-CPU1Temp.json",
                 "dell/libredfish-dell-Sensor-Fan.Embedded.1A.json",
                 "dell/libredfish-dell-Sensor-SystemBoardPwrConsumption.json"}),
       3, "CPU1Temp", 37, "Cel"},
      {Expanded({"lenovo/libredfish-lenovo-Sensor-67L0.json",
                 "lenovo/libredfish-lenovo-Sensor-150L0.json"}),
       2, "67L0", 170, "Watts"},
      {Expanded({"dmtf/rackmount1-Sensor-CPUFan1.json"}), 1, "CPUFan1", 80, "%"},
      // The absent sensor is left out.
      {Expanded({"openbmc/libredfish-nvidia_dpu-Sensor-12V_ATX.json",
                 "openbmc/libredfish-nvidia_dpu-Sensor-p0_temp.json"}),
       1, "12V_ATX", 12.16, "V"},
  };
  for (const auto& c : cases) {
    std::vector<SensorReading> readings;
    ASSERT_EQ(ReadingsOfSensors(Parsed(c.collection), readings), 0);
    ASSERT_EQ(readings.size(), c.count);
    EXPECT_EQ(readings[0].id, c.id);
    EXPECT_DOUBLE_EQ(*readings[0].reading, c.reading);
    EXPECT_EQ(readings[0].units, c.units);
  }
  std::vector<SensorReading> readings;
  EXPECT_EQ(ReadingsOfSensors(Parsed("[]"), readings), 20004);
}

TEST(Readings, ThermalAndPowerOfARealBmc) {
  std::vector<SensorReading> readings;
  ReadingsOfThermal(Parsed(Sample("hpe/libredfish-hpe-Chassis-1-Thermal.json")), readings);
  ASSERT_EQ(readings.size(), 53u - 6u + 6u) << "absent temperature sensors are left out";
  EXPECT_EQ(readings[0].name, "01-Inlet Ambient");
  EXPECT_EQ(readings[0].units, "Cel");
  EXPECT_EQ(readings.back().units, "Percent") << "a fan's own units win";

  readings.clear();
  ReadingsOfPower(Parsed(Sample("hpe/libredfish-hpe-Chassis-1-Power.json")), readings);
  ASSERT_EQ(readings.size(), 3u);
  EXPECT_EQ(readings[0].id, "PowerControl/0");
  EXPECT_EQ(readings[1].id, "PowerSupplies/0");
  EXPECT_EQ(readings[2].id, "PowerSupplies/1") << "ids are unique per chassis";
  EXPECT_DOUBLE_EQ(*readings[0].reading, 531);

  // iLO 4 names a fan's reading and units before the standard did.
  readings.clear();
  ReadingsOfThermal(Parsed(Sample("hpe/libredfish-testdata-thermal-hpe.json")), readings);
  ASSERT_FALSE(readings.empty());
  EXPECT_EQ(readings.back().name, "Fan 10");
  ASSERT_TRUE(readings.back().reading.has_value());
  EXPECT_DOUBLE_EQ(*readings.back().reading, 60);
  EXPECT_EQ(readings.back().units, "Percent");

  const rapidjson::Document chassis = Parsed(Sample("hpe/libredfish-hpe-Chassis-1.json"));
  EXPECT_FALSE(HasInlineThermalOrPower(chassis)) << "a plain chassis only links them";
  std::string thermal, power;
  ThermalAndPowerLinks(chassis, thermal, power);
  EXPECT_EQ(thermal, "/redfish/v1/Chassis/1/Thermal");
  EXPECT_EQ(power, "/redfish/v1/Chassis/1/Power");
  EXPECT_TRUE(HasInlineThermalOrPower(
      Parsed(R"({"Thermal":)" + Sample("hpe/libredfish-hpe-Chassis-1-Thermal.json") + "}")));
}

TEST(Readings, DocumentIsValidJsonForAnyText) {
  ChassisReadings c{"1", "/redfish/v1/Chassis/1", "Sensors", {}};
  c.sensors.push_back({"a\"b", "name\n", std::nullopt, "Cel", "Temperature", "OK"});
  c.sensors.push_back({"x", "y", 1.5,
                       "\xB0"
                       "C\xC2\xB0",
                       "", "\xED\xA0\x80"});
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(ReadingsDocument({c}).c_str());
  ASSERT_FALSE(document.HasParseError());
  const rapidjson::Value& sensors = document["Chassis"][0]["Sensors"];
  EXPECT_STREQ(sensors[0]["Id"].GetString(), "a\"b");
  EXPECT_TRUE(sensors[0]["Reading"].IsNull());
  EXPECT_DOUBLE_EQ(sensors[1]["Reading"].GetDouble(), 1.5);
  // A BMC's bytes that are not UTF-8 become U+FFFD; valid ones stay.
  EXPECT_STREQ(sensors[1]["ReadingUnits"].GetString(),
               "\xEF\xBF\xBD"
               "C\xC2\xB0");
  EXPECT_STREQ(sensors[1]["Health"].GetString(), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}
