// The pure readers of BMC documents: what they make of malformed ones and of
// MACs as real BMCs write them (the systems and actions of each maker are the
// conformance table's).
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
