// The pure readers of BMC documents, over real BMCs' payloads.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "resources/documents.h"
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
