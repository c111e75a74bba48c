// The health document as series: values, never status texts in labels, the
// same set whatever fails, a cap per kind that says what it left out.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "exposition.h"
#include "health_metrics.h"
#include "samples.h"
#include "textfile.h"

namespace {

// As the library writes it for an HPE-like BMC: every storage's controller is
// "0", one DIMM slot is empty.
std::string Document(const char* driveHealth, int dimms = 2) {
  std::string parts =
      R"({"Kind":"Manager","Id":"1","Name":"iLO","Parent":"","State":"Enabled","Health":"OK"},)"
      R"({"Kind":"StorageController","Id":"0","Name":"Ctl","Parent":"S1","State":"Enabled","Health":"OK"},)"
      R"({"Kind":"StorageController","Id":"0","Name":"Ctl","Parent":"S2","State":"Enabled","Health":"OK"},)"
      R"({"Kind":"Drive","Id":"D1","Name":"Disk \"1\"","Parent":"S1","State":"Enabled","Health":")" +
      std::string(driveHealth) +
      R"("},{"Kind":"Memory","Id":"gone","Name":"DIMM","Parent":"1","State":"Absent","Health":""})";
  for (int i = 0; i < dimms; ++i) {
    parts += R"(,{"Kind":"Memory","Id":"M)" + std::to_string(i) +
             R"(","Name":"DIMM","Parent":"1","State":"Enabled","Health":"OK"})";
  }
  const bool failed = std::string(driveHealth) != "OK";
  return std::string(R"({"Health":")") + (failed ? driveHealth : "OK") + R"(","Causes":[],)" +
         R"("Systems":[{"Id":"1","PowerState":"On","Status":{"State":"Enabled","Health":"OK",)"
         R"("HealthRollup":""}}],"Chassis":[],"Parts":[)" +
         parts +
         R"(],"Firmware":[{"Kind":"BMC","Id":"1","Name":"iLO","Version":"2.72"}],)"
         R"("Read":{"At":1000,"PartsAt":940,"FirmwareAt":100,"PartsLeftOut":0,"Gaps":[]}})";
}

std::map<std::string, std::string> SamplesOf(const Snapshot& s) {
  return Samples(Render(s, {1000, 0, "1.1.0"}));
}

Snapshot Read(const std::string& health) {
  Snapshot s;
  ReadResult r;
  r.readings = R"({"Chassis":[]})";
  r.healthRead = true;
  r.healthDocument = health;
  ApplyRead(s, r, 1000);
  return s;
}

}  // namespace

TEST(HealthSeries, AFailureChangesValuesNeverTheSeriesSet) {
  const auto ok = SamplesOf(Read(Document("OK")));
  const auto failed = SamplesOf(Read(Document("Critical")));
  EXPECT_EQ(Names(ok), Names(failed));
  const std::string drive =
      R"(bmcredfish_component_health{kind="drive",id="D1",name="Disk \"1\""})";
  EXPECT_EQ(ok.at(drive), "0");
  EXPECT_EQ(failed.at(drive), "2");
  EXPECT_EQ(failed.at("bmcredfish_health"), "2");
  // Ids that repeat within a kind are named by what holds them; an absent
  // slot has no series; a rollup the BMC leaves empty is NaN, not missing.
  EXPECT_EQ(
      ok.count(R"(bmcredfish_component_health{kind="storage_controller",id="S2/0",name="Ctl"})"),
      1u);
  EXPECT_EQ(ok.count(R"(bmcredfish_component_health{kind="memory",id="gone",name="DIMM"})"), 0u);
  EXPECT_EQ(ok.at(R"(bmcredfish_component_health_rollup{kind="system",id="1",name="1"})"), "NaN");
  EXPECT_EQ(ok.at(R"(bmcredfish_firmware_info{kind="BMC",id="1",name="iLO",version="2.72"})"), "1");
  EXPECT_EQ(ok.at("bmcredfish_components_age_seconds"), "60");
  for (const auto& name : Names(ok)) {
    EXPECT_EQ(name.find("OK"), std::string::npos) << name;
    EXPECT_EQ(name.find("Critical"), std::string::npos) << name;
  }

  // A failed read keeps the series; the state file keeps them for the next run.
  Snapshot s = Read(Document("OK"));
  ReadResult refused;
  refused.healthRead = true;
  refused.healthCall = {10003, 6};
  ApplyRead(s, refused, 1010);
  EXPECT_EQ(Names(SamplesOf(s)), Names(ok));
  EXPECT_EQ(SamplesOf(s).at(R"(bmcredfish_last_result{call="health"})"), "10003");
  std::string error;
  const std::string state = testing::TempDir() + "/health-state.json";
  ASSERT_TRUE(SaveState(state, s, error)) << error;
  Snapshot loaded;
  ASSERT_TRUE(LoadState(state, loaded));
  ASSERT_NE(loaded.health, nullptr);
  EXPECT_EQ(loaded.health->document, s.health->document);
}

TEST(HealthSeries, EachKindIsCappedAndTheCapSaysWhatItLeftOut) {
  const auto samples = SamplesOf(Read(Document("OK", 300)));
  size_t memory = 0;
  for (const auto& s : samples) {
    memory += s.first.rfind(R"(bmcredfish_component_health{kind="memory")", 0) == 0;
  }
  EXPECT_EQ(memory, kComponentsPerKind);
  EXPECT_EQ(samples.at(R"(bmcredfish_components_dropped{kind="memory"})"), "44");
  EXPECT_EQ(samples.at(R"(bmcredfish_components_dropped{kind="drive"})"), "0");
}
