// Every reading once, whichever models a BMC serves it in: the merge over a
// captured tree and over the cases the trees show, then the read itself over
// a scripted BMC (query options, the warm read, bad documents, bounds).
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "resources/readings_merge.h"
#include "tests/unit/test_support.h"
#include "utils/json_access.h"

using namespace redfish;
using Api = test_support::ApiTest;

namespace {

// Documents kept alive for the merge, each as the walk would hand it over.
struct Docs {
  void Json(SourceKind kind, size_t chassis, const std::string& path, const std::string& text) {
    parsed.emplace_back();
    ParseJson(parsed.back(), text);
    list.push_back({kind, chassis, path, &parsed.back()});
  }
  // The document a captured tree holds at path.
  void Tree(SourceKind kind, size_t chassis, const std::string& tree, const std::string& path) {
    std::ifstream in(std::string(READINGS_TREES) + "/" + tree + path + "/index.json");
    EXPECT_TRUE(in) << path;
    std::stringstream text;
    text << in.rdbuf();
    Json(kind, chassis, path, text.str());
  }
  std::vector<ChassisReadings> Merge(const std::vector<ChassisOfReadings>& chassis) {
    std::vector<ChassisReadings> out;
    MergeReadings(chassis, list, out, used, notes);
    return out;
  }
  std::deque<rapidjson::Document> parsed;
  std::vector<SourceDocument> list;
  std::vector<bool> used;
  ReadNotes notes;
};

const SensorReading* Find(const ChassisReadings& c, const std::string& id) {
  for (const SensorReading& s : c.sensors)
    if (s.id == id) return &s;
  return nullptr;
}

std::vector<std::string> Children(const std::string& tree, const std::string& path) {
  std::vector<std::string> out;
  for (const auto& e :
       std::filesystem::directory_iterator(std::string(READINGS_TREES) + "/" + tree + path)) {
    if (e.is_directory()) out.push_back(path + "/" + e.path().filename().string());
  }
  return out;
}

}  // namespace

// An iDRAC shows each reading in Sensors, again in ThermalMetrics, Fans and
// the supplies' Metrics, and again in Thermal and Power.
TEST(Readings, ACapturedTreeShowsEachReadingOnceWithItsPowerFigure) {
  const std::string c = "/redfish/v1/Chassis/System.Embedded.1";
  Docs d;
  for (const std::string& s : Children("dell", c + "/Sensors")) {
    d.Tree(SourceKind::Sensor, 0, "dell", s);
  }
  const size_t sensors = d.list.size();
  d.Tree(SourceKind::ThermalMetrics, 0, "dell", c + "/ThermalSubsystem/ThermalMetrics");
  for (const std::string& f : Children("dell", c + "/ThermalSubsystem/Fans")) {
    d.Tree(SourceKind::Fan, 0, "dell", f);
  }
  for (const char* psu : {"/PSU.Slot.1", "/PSU.Slot.2"}) {
    d.Tree(SourceKind::PowerSupplyMetrics, 0, "dell",
           c + "/PowerSubsystem/PowerSupplies" + psu + "/Metrics");
  }
  d.Tree(SourceKind::Thermal, 0, "dell", c + "/Thermal");
  d.Tree(SourceKind::Power, 0, "dell", c + "/Power");
  NewerModels newer;
  newer.temperatures = newer.fans = newer.powerSupplies = true;
  const auto out = d.Merge({{"System.Embedded.1", c, newer}});

  ASSERT_EQ(out.size(), 1u);
  std::set<std::string> sources;
  size_t numbers = 0;
  for (const SensorReading& s : out[0].sensors) {
    EXPECT_TRUE(sources.insert(s.source).second) << "twice: " << s.source;
    numbers += s.reading.has_value();
  }
  // Every sensor, the power-good signals only Power lists (no number), and
  // the power control: nothing else is new.
  EXPECT_EQ(numbers, sensors + 1);
  EXPECT_EQ(out[0].sensors.size(), sensors + 41 + 1);
  EXPECT_EQ(out[0].powerWatts, 614);
  EXPECT_EQ(out[0].powerSource, c + "/Power#/PowerControl/0");
  EXPECT_EQ(out[0].sources, (std::vector<std::string>{"Sensors", "Power"}));
  const SensorReading* cpu = Find(out[0], "CPU1Temp");
  ASSERT_NE(cpu, nullptr);
  EXPECT_EQ(cpu->thresholds[UpperCritical], 99);
  EXPECT_EQ(cpu->thresholds[LowerCritical], 3);
  EXPECT_FALSE(cpu->thresholds[UpperCaution]) << "a threshold the BMC leaves null";
  // Only Power is read again: the rest gave nothing the sensors did not.
  for (size_t i = sensors; i + 1 < d.list.size(); ++i) EXPECT_FALSE(d.used[i]) << d.list[i].path;
  EXPECT_TRUE(d.used.back());
  EXPECT_TRUE(d.notes.kept.empty()) << d.notes.kept[0];
}

TEST(Readings, NewerModelsReplaceTheOldAndExcerptsNameTheirSensors) {
  Docs d;
  const std::string a = "/redfish/v1/Chassis/A";
  d.Json(SourceKind::Sensor, 0, a + "/Sensors/Fan1",
         R"({"@odata.id":"/redfish/v1/Chassis/A/Sensors/Fan1","Id":"Fan1","Name":"Fan 1",
             "Reading":6431,"ReadingUnits":"RPM","ReadingType":"AirFlow"})");
  d.Json(SourceKind::Sensor, 0, a + "/Sensors/VBAT", R"({"Id":"VBAT","Name":"VBAT"})");
  // A fan's RPM in a percentage, a counter in two units, one linked to a
  // sensor of another chassis that is read nowhere else.
  d.Json(
      SourceKind::EnvironmentMetrics, 0, a + "/EnvironmentMetrics",
      R"({"FanSpeedsPercent":[{"DataSourceUri":"/redfish/v1/Chassis/A/Sensors/Fan1","Reading":6431}],
             "PowerWatts":{"Reading":700},
             "EnergyJoules":{"DataSourceUri":"/redfish/v1/Chassis/B/Sensors/Energy","Reading":3.6e6},
             "EnergykWh":{"Reading":1}})");
  d.Json(SourceKind::Power, 0, a + "/Power",
         R"({"PowerControl":[{"PowerConsumedWatts":708}],
             "Voltages":[{"Name":" vbat ","ReadingVolts":3.1}],
             "PowerSupplies":[{"MemberId":"0","Name":"PSU1","LineInputVoltage":230,
                               "LastPowerOutputWatts":277}]})");
  NewerModels newer;
  newer.chassisPower = true;
  const auto out = d.Merge({{"A", a, newer}, {"B", "/redfish/v1/Chassis/B", {}}});

  ASSERT_EQ(out.size(), 2u);
  const ChassisReadings& ca = out[0];
  EXPECT_EQ(Find(ca, "Fan1")->units, "RPM") << "the sensor's units, not the excerpt's";
  EXPECT_EQ(Find(ca, "VBAT")->reading, 3.1) << "a sensor without a number takes its twin's";
  EXPECT_EQ(Find(ca, "VBAT")->units, "V");
  EXPECT_EQ(ca.powerWatts, 700) << "EnvironmentMetrics replaces PowerControl";
  EXPECT_EQ(Find(ca, "PowerControl/0"), nullptr);
  const SensorReading* voltage = Find(ca, "PowerSupplies/0/InputVoltage");
  ASSERT_NE(voltage, nullptr);
  EXPECT_EQ(voltage->units, "V") << "voltage is never watts";
  EXPECT_EQ(voltage->type, "Voltage");
  EXPECT_EQ(Find(ca, "PowerSupplies/0/OutputPower")->reading, 277);
  EXPECT_EQ(ca.sensors.size(), 5u) << "Fan1, VBAT, PowerWatts and the supply's two";
  // The counter belongs to the chassis whose sensor it is; A's figure names it.
  ASSERT_EQ(out[1].sensors.size(), 1u);
  EXPECT_EQ(out[1].sensors[0].units, "J");
  EXPECT_EQ(ca.energyJoules, 3.6e6);
  EXPECT_EQ(ca.energySource, "/redfish/v1/Chassis/B/Sensors/Energy");
}

TEST(Readings, WhatIsNotOfTheRedfishShapeIsLeftOutAndSaid) {
  Docs d;
  d.Json(SourceKind::Sensor, 0, "/s/T",
         R"({"Id":"T","Reading":"37","ReadingUnits":"Cel",
             "Thresholds":{"UpperCritical":{},"LowerCritical":{"Reading":"x"},"UpperFatal":{"Reading":90}}})");
  d.Json(
      SourceKind::Thermal, 0, "/t",
      R"({"Temperatures":"x","Fans":[{"Name":"F","Reading":true},{"Status":{"State":"Absent"}}]})");
  d.Json(SourceKind::EnvironmentMetrics, 0, "/e", "[]");
  d.Json(SourceKind::PowerSupplyMetrics, 0, "/p/Metrics", R"({"RailVoltage":[7,{"Reading":12}]})");
  const auto out = d.Merge({{"1", "/c", {}}});
  ASSERT_EQ(out.size(), 1u);
  const SensorReading* t = Find(out[0], "T");
  ASSERT_NE(t, nullptr);
  EXPECT_FALSE(t->reading);
  EXPECT_FALSE(t->thresholds[UpperCritical]);
  EXPECT_FALSE(t->thresholds[LowerCritical]);
  EXPECT_EQ(t->thresholds[UpperFatal], 90);
  EXPECT_FALSE(Find(out[0], "Fans/0")->reading) << "a boolean is no reading";
  EXPECT_EQ(Find(out[0], "p/RailVoltage/1")->reading, 12);
  std::string said;
  for (const std::string& n : d.notes.kept) said += n + "\n";
  for (const char* note :
       {"/s/T: Reading is not a number", "/s/T threshold UpperCritical has no Reading",
        "/s/T threshold LowerCritical: Reading is not a number", "/t: Temperatures is not an array",
        "/t#/Fans/0: Reading is not a number", "/e: the answer is not a JSON object",
        "/p/Metrics#/RailVoltage/0 is not an object"}) {
    EXPECT_NE(said.find(note), std::string::npos) << note << " in:\n" << said;
  }
}

namespace {

constexpr char kRoot[] = "/bmc/redfish/v1";
constexpr char kChassis[] = "/bmc/redfish/v1/Chassis/1";

int Read(std::string& text) {
  char* json = nullptr;
  const int result = Redfish_GetSensorReadings("u", "p", nullptr, 1000, &json);
  text = json != nullptr ? json : "";
  Redfish_FreeText(json);
  return result;
}

std::multiset<std::string> Targets() {
  std::multiset<std::string> out;
  for (const auto& r : fake_http::Requests()) out.insert(r.target);
  return out;
}

}  // namespace

TEST_F(Api, ExpandOnlyWhereAdvertisedARefusalRememberedAndLaterReadsOnlyWhatGaveReadings) {
  bmc.Json(kRoot, R"({"ProtocolFeaturesSupported":{"ExpandQuery":{"Levels":true,"NoLinks":true}}})")
      .Json(kChassis,
            R"({"Id":"1","Sensors":{"@odata.id":"/redfish/v1/Chassis/1/Sensors"},
                "Thermal":{"@odata.id":"/redfish/v1/Chassis/1/Thermal"}})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)", "{}", 501)
      .Json("/bmc/redfish/v1/Chassis/1/Sensors",
            R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1/Sensors/T1"},
                           {"@odata.id":"/redfish/v1/Chassis/1/Sensors/T2"}]})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors/T1", R"({"Id":"T1","Name":"T1","Reading":20})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors/T2", R"({"Id":"T2","Name":"T2","Reading":30})")
      .Json("/bmc/redfish/v1/Chassis/1/Thermal",
            R"({"Temperatures":[{"Name":"T1","ReadingCelsius":20}]})")
      .Install();
  std::string text;
  ASSERT_EQ(Read(text), 0);
  EXPECT_NE(text.find(R"("Id":"T2","Name":"T2","Reading":30.0)"), std::string::npos) << text;
  EXPECT_EQ(text.find("Temperatures/0"), std::string::npos) << "the same sensor as T1";
  EXPECT_EQ(Targets().count("/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)"), 1u);

  bmc.Install();  // forgets the requests
  ASSERT_EQ(Read(text), 0);
  EXPECT_EQ(Targets(), (std::multiset<std::string>{"/bmc/redfish/v1/Chassis/1/Sensors/T1",
                                                   "/bmc/redfish/v1/Chassis/1/Sensors/T2"}))
      << "the refusal is remembered; Thermal gave nothing";

  // A document read again that fails: the readings are found anew, at once.
  bmc.Json("/bmc/redfish/v1/Chassis/1/Sensors/T2", "{}", 404).Install();
  ASSERT_EQ(Read(text), 0);
  EXPECT_EQ(text.find("T2"), std::string::npos);
  EXPECT_TRUE(
      log.Has(3, "Sensor readings: left out /redfish/v1/Chassis/1/Sensors/T2: answered 404"));

  // Not advertised: never asked.
  cleanup();
  bmc.Json(kRoot, "{}").Json("/bmc/redfish/v1/Chassis/1/Sensors/T2", R"({"Id":"T2"})").Install();
  ASSERT_EQ(Read(text), 0);
  for (const std::string& t : Targets()) EXPECT_EQ(t.find('$'), std::string::npos) << t;
}

TEST_F(Api, LoopsAreReadOnceAndNothingToShowSaysWhy) {
  bmc.Json(kChassis,
           R"({"Id":"1","PowerSubsystem":{"@odata.id":"/redfish/v1/Chassis/1/PowerSubsystem"},
               "Sensors":{"@odata.id":"/redfish/v1/Chassis/1/Sensors"}})")
      .Json(
          "/bmc/redfish/v1/Chassis/1/PowerSubsystem",
          R"({"PowerSupplies":{"@odata.id":"/redfish/v1/Chassis/1/PowerSubsystem/PowerSupplies"}})")
      .Json("/bmc/redfish/v1/Chassis/1/PowerSubsystem/PowerSupplies",
            R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1/PowerSubsystem/PowerSupplies/0"}]})")
      .Json("/bmc/redfish/v1/Chassis/1/PowerSubsystem/PowerSupplies/0",
            R"({"Metrics":{"@odata.id":"/redfish/v1/Chassis/1/PowerSubsystem"}})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors",
            R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1/Sensors/T"}]})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors/T", R"({"Id":"T","Reading":1})")
      .Install();
  std::string text;
  ASSERT_EQ(Read(text), 0);
  EXPECT_TRUE(log.Has(
      3,
      "Sensor readings: left out /redfish/v1/Chassis/1/PowerSubsystem: linked again (a loop); "
      "read once"));
  EXPECT_EQ(Targets().count("/bmc/redfish/v1/Chassis/1/PowerSubsystem"), 1u);

  // Garbage where the readings are is the cause; an empty BMC is 40001.
  cleanup();
  bmc.Json("/bmc/redfish/v1/Chassis/1/Sensors", "<html>").Install();
  EXPECT_EQ(Read(text), 20004);
  cleanup();
  bmc.Json(kChassis, R"({"Id":"1"})").Install();
  EXPECT_EQ(Read(text), 40001);
}

TEST_F(Api, ConcurrentReadsOfOneBmcEachGetEveryReading) {
  bmc.Json(kChassis, R"({"Id":"1","Sensors":{"@odata.id":"/redfish/v1/Chassis/1/Sensors"}})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors",
            R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1/Sensors/T1"},
                           {"@odata.id":"/redfish/v1/Chassis/1/Sensors/T2"}]})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors/T1", R"({"Id":"T1","Reading":20})")
      .Json("/bmc/redfish/v1/Chassis/1/Sensors/T2", R"({"Id":"T2","Reading":30})")
      .Install();
  std::string expected;
  ASSERT_EQ(Read(expected), 0);
  cleanup();
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) {
        std::string text;
        if (Read(text) != 0 || text != expected) ++wrong;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong, 0);
}
