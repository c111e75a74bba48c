// The health read: what it names, what it asks the BMC when nothing changed,
// and bounded work on hostile collections.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/pointer.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <set>

#include "resources/health_document.h"
#include "tests/unit/test_support.h"

namespace {

constexpr char kBmc[] = "/bmc/redfish/v1";

std::string System(const char* memoryRollup, const char* bios = "1.0") {
  return std::string(R"({"Id":"1","PowerState":"On","BiosVersion":")") + bios +
         R"(","Status":{"State":"Enabled","Health":"OK","HealthRollup":"OK"},)"
         R"("MemorySummary":{"Status":{"HealthRollup":")" +
         memoryRollup +
         R"("}},"Memory":{"@odata.id":"/redfish/v1/Systems/1/Memory"},)"
         R"("Storage":{"@odata.id":"/redfish/v1/Systems/1/Storage"}})";
}

std::string Manager(const char* firmware) {
  return std::string(R"({"Id":"1","Name":"BMC","FirmwareVersion":")") + firmware +
         R"(","Status":{"State":"Enabled","Health":"OK"}})";
}

// A BMC with one DIMM and an empty slot, a storage whose controller is OK
// above a failed drive, and a chassis whose supply sits in its Power resource.
struct HealthTest : test_support::ApiTest {
  HealthTest() {
    Members(std::string(kBmc) + "/Systems/1/Memory", "/redfish/v1/Systems/1/Memory/A1");
    Members(std::string(kBmc) + "/Systems/1/Storage", "/redfish/v1/Systems/1/Storage/S1");
    bmc.Json(std::string(kBmc) + "/Systems/1", System("OK"))
        .Json(std::string(kBmc) + "/Systems/1/Memory/A1",
              R"({"Id":"A1","Name":"DIMM A1","Status":{"State":"Enabled","Health":"OK"}})")
        .Json(std::string(kBmc) + "/Systems/1/Storage/S1",
              R"({"Id":"S1","Status":{"Health":"OK"},"StorageControllers":[{"MemberId":"0",)"
              R"("Status":{"Health":"OK"}}],"Drives":[{"@odata.id":)"
              R"("/redfish/v1/Systems/1/Storage/S1/Drives/D0/"}]})")
        .Json(std::string(kBmc) + "/Systems/1/Storage/S1/Drives/D0",
              R"({"Id":"D0","Name":"Disk 0","Status":{"State":"Enabled","Health":"Critical"}})")
        .Json(
            std::string(kBmc) + "/Chassis/1",
            R"({"Id":"1","Status":{"Health":"OK"},"Power":{"@odata.id":"/redfish/v1/Chassis/1/Power"}})")
        .Json(std::string(kBmc) + "/Chassis/1/Power",
              R"({"PowerSupplies":[{"MemberId":"0","Name":"PSU 1","Status":{"State":"Absent"}},)"
              R"({"MemberId":"1","Name":"PSU 2","Status":{"Health":"OK"}}]})")
        .Json(std::string(kBmc) + "/Managers/1", Manager("1.0"));
    bmc.Install();
  }

  std::string Health(const char* previous, const char* readings = nullptr) {
    bmc.Install();  // forgets the earlier requests
    char* json = nullptr;
    result = Redfish_GetHealth("u", "p", nullptr, 2000, previous, readings, &json);
    std::string text = json != nullptr ? json : "";
    Redfish_FreeText(json);
    return text;
  }

  static int Asked(const std::string& path) {
    int n = 0;
    for (const auto& r : fake_http::Requests()) n += r.target == kBmc + path;
    return n;
  }
  static int AskedBmc() {
    int n = 0;
    for (const auto& r : fake_http::Requests()) n += r.target.rfind("/bmc/", 0) == 0;
    return n;
  }

  int result = -1;
};

std::string Field(const std::string& json, const char* pointer) {
  rapidjson::Document d;
  d.Parse(json.c_str());
  const rapidjson::Value* v = rapidjson::Pointer(pointer).Get(d);
  if (v == nullptr) return "<none>";
  if (v->IsString()) return v->GetString();
  rapidjson::StringBuffer out;
  rapidjson::Writer<rapidjson::StringBuffer> w(out);
  v->Accept(w);
  return out.GetString();
}

// previous with its walk dated seconds earlier.
std::string Aged(const std::string& json, int seconds) {
  redfish::HealthReport report;
  EXPECT_TRUE(redfish::ParseHealthDocument(json, report));
  report.partsAt -= seconds;
  return redfish::HealthDocument(report);
}

const char kReadingsOk[] =
    R"({"Chassis":[{"Id":"1","Sensors":[{"Id":"T1","Name":"Inlet","Health":"OK"}]}]})";
const char kReadingsWarm[] =
    R"({"Chassis":[{"Id":"1","Sensors":[{"Id":"T1","Name":"Inlet","Health":"Warning"}]}]})";

}  // namespace

TEST_F(HealthTest, NamesTheFailedPartAndWalksOnlyWhenWhatItWatchesChanges) {
  const std::string cold = Health(nullptr, kReadingsOk);
  ASSERT_EQ(result, 0);
  // The BMC rolls up OK; the drive behind an OK controller raises the rollup.
  EXPECT_EQ(Field(cold, "/Health"), "Critical");
  EXPECT_EQ(Field(cold, "/Causes"),
            R"([{"Kind":"Drive","Id":"D0","Name":"Disk 0","Parent":"S1",)"
            R"("@odata.id":"/redfish/v1/Systems/1/Storage/S1/Drives/D0","Health":"Critical"}])");
  redfish::HealthReport report;
  ASSERT_TRUE(redfish::ParseHealthDocument(cold, report));
  std::set<std::string> parts;
  for (const auto& p : report.parts) {
    parts.insert(redfish::KindName(p.kind) + (":" + p.id + ":" + p.state));
  }
  EXPECT_EQ(parts, (std::set<std::string>{"Manager:1:Enabled", "Memory:A1:Enabled",
                                          "StorageController:0:", "Drive:D0:Enabled",
                                          "PowerSupply:0:Absent", "PowerSupply:1:"}));
  EXPECT_EQ(
      Field(cold, "/Firmware"),
      R"([{"Kind":"BMC","Id":"1","Name":"BMC","Version":"1.0","@odata.id":"/redfish/v1/Managers/1"},)"
      R"({"Kind":"BIOS","Id":"1","Name":"1","Version":"1.0","@odata.id":"/redfish/v1/Systems/1"}])");
  EXPECT_EQ(Asked("/UpdateService"), 1);

  // Nothing changed: the system and the manager, nothing else.
  const std::string warm = Health(cold.c_str(), kReadingsOk);
  ASSERT_EQ(result, 0);
  EXPECT_EQ(AskedBmc(), 2) << "the system and the manager";
  EXPECT_EQ(Field(warm, "/Parts"), Field(cold, "/Parts"));
  EXPECT_EQ(Field(warm, "/Read/PartsAt"), Field(cold, "/Read/PartsAt"));

  // Each thing watched walks the parts again: a summary under the system, a
  // sensor's health, ten minutes; a new BMC firmware reads the inventory.
  bmc.Json(std::string(kBmc) + "/Systems/1", System("Warning"));
  Health(warm.c_str(), kReadingsOk);
  EXPECT_EQ(Asked("/Systems/1/Memory"), 1);
  bmc.Json(std::string(kBmc) + "/Systems/1", System("OK"));
  const std::string sensor = Health(warm.c_str(), kReadingsWarm);
  EXPECT_EQ(Asked("/Systems/1/Memory"), 1);
  EXPECT_EQ(Field(sensor, "/Causes/1/Kind") + Field(sensor, "/Causes/1/Id"), "SensorT1");
  Health(Aged(warm, 590).c_str(), kReadingsOk);
  EXPECT_EQ(Asked("/Systems/1/Memory"), 0);
  Health(Aged(warm, 600).c_str(), kReadingsOk);
  EXPECT_EQ(Asked("/Systems/1/Memory"), 1);
  EXPECT_EQ(Asked("/UpdateService"), 0);
  bmc.Json(std::string(kBmc) + "/Managers/1", Manager("2.0"));
  const std::string updated = Health(warm.c_str(), kReadingsOk);
  EXPECT_EQ(Asked("/UpdateService"), 1);
  EXPECT_EQ(Asked("/Systems/1/Memory"), 0) << "a new version is no health change";
  EXPECT_EQ(Field(updated, "/Firmware/0/Version"), "2.0");
}

TEST_F(HealthTest, HostileCollectionsEndInBoundedWorkAndSayWhatWasLeftOut) {
  // 10,000 members given as links, one given whole without any id and with a
  // Health Redfish does not know, and a storage collection that lists itself.
  std::string members = R"({"Members":[{"Name":"X","Status":{"Health":"Broken"}})";
  for (int i = 0; i < 10000; ++i) {
    members += R"(,{"@odata.id":"/redfish/v1/Systems/1/Memory/M)" + std::to_string(i) + "\"}";
  }
  bmc.Json(std::string(kBmc) + "/Systems/1/Memory", members + "]}")
      .Json(std::string(kBmc) + "/Systems/1/Storage",
            R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1/Storage"}]})");
  const std::string doc = Health(nullptr);
  ASSERT_EQ(result, 0);
  int memberReads = 0;
  for (const auto& r : fake_http::Requests()) {
    memberReads += r.target.rfind(std::string(kBmc) + "/Systems/1/Memory/M", 0) == 0;
  }
  // A walk sends 512 requests: the collections, the system, the chassis, DIMMs.
  EXPECT_GT(memberReads, 500);
  EXPECT_EQ(AskedBmc(), 512 + 6) << "and the root, the systems, the managers, the update service";
  EXPECT_EQ(Asked("/Systems/1/Storage"), 1);
  const std::string leftOut = std::to_string(10000 - memberReads);
  EXPECT_EQ(Field(doc, "/Read/PartsLeftOut"), leftOut);
  EXPECT_EQ(Field(doc, "/Causes/0/Id") + " " + Field(doc, "/Causes/0/Health"), "1#0 Warning");
  for (const std::string& line :
       {std::string("health: 1 parts without an Id"),
        std::string("health: 1 Health values Redfish"),
        std::string("health: 1 links to resources already read"),
        "health: " + leftOut + " members left out",
        "health: " + std::to_string(memberReads) + " component reads failed"}) {
    EXPECT_TRUE(log.HasPrefix(3, line)) << line;
  }
}

TEST(HealthDocument, RollupNamesPartsBeforeWhatRollsThemUp) {
  using redfish::Part;
  using redfish::PartKind;
  redfish::HealthReport r;
  r.systems.push_back({"1", "/s/1", "On", "Enabled", "Critical", "Critical", "", 0});
  r.chassis.push_back({PartKind::Chassis, "c", "c", "", "/c", "Enabled", "OK", "Warning"});
  r.parts.push_back({PartKind::Fan, "f", "Fan", "c", "/f", "Enabled", "Warning", ""});
  r.parts.push_back({PartKind::Memory, "m", "DIMM", "1", "/m", "Absent", "Critical", ""});
  std::vector<redfish::Cause> causes;
  // Nothing read explains the system's Critical: it is named, first; the
  // chassis' Warning is the fan's; the absent DIMM is no failure.
  EXPECT_EQ(redfish::Rollup(r, causes), redfish::HealthLevel::Critical);
  ASSERT_EQ(causes.size(), 2u);
  EXPECT_EQ(causes[0].kind, PartKind::System);
  EXPECT_EQ(causes[1].id, "f");
  r.parts.push_back({PartKind::Drive, "d", "Disk", "S", "/d", "Enabled", "Critical", ""});
  redfish::Rollup(r, causes);
  ASSERT_EQ(causes.size(), 2u);
  EXPECT_EQ(causes[0].id, "d");

  // What a later call needs comes back from the document.
  r.partsAt = 1700000000;
  r.watched = "abc";
  r.gaps = {"/x: answered 500"};
  redfish::HealthReport back;
  ASSERT_TRUE(redfish::ParseHealthDocument(redfish::HealthDocument(r), back));
  EXPECT_EQ(back.parts.size(), 3u);
  EXPECT_EQ(back.parts[1].state, "Absent");
  EXPECT_EQ(back.systems[0].healthRollup, "Critical");
  EXPECT_EQ(back.partsAt, 1700000000);
  EXPECT_EQ(back.watched, "abc");
  EXPECT_EQ(back.gaps, r.gaps);
  EXPECT_FALSE(redfish::ParseHealthDocument("[]", back));
}
