// The exposition of canned readings documents: metric per unit, labels,
// escaping, and the series kept across failed reads.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

#include "bmcredfish.h"
#include "exposition.h"
#include "samples.h"

namespace {

// Readings documents shaped as the library builds them from each vendor's
// payloads (units and types as those BMCs write them).
const char kReadings[] = R"({"Chassis":[
 {"Id":"System.Embedded.1","Sources":["Sensors","Power"],"PowerWatts":614,
  "PowerSource":"/redfish/v1/Chassis/System.Embedded.1/Power#/PowerControl/0","Sensors":[
  {"Id":"CPU1Temp","Name":"CPU1 Temp","Reading":41,"ReadingUnits":"Cel","ReadingType":"Temperature","Health":"OK",
   "Thresholds":{"UpperCaution":null,"UpperCritical":99,"LowerCritical":3}},
  {"Id":"Fan1A","Name":"Fan 1A","Reading":6431,"ReadingUnits":"RPM","ReadingType":"AirFlow","Health":"Warning",
   "Thresholds":{"LowerCritical":480}},
  {"Id":"67L0","Name":"PSU2 AC In Pwr","Reading":170,"ReadingUnits":"Watts","ReadingType":"Current","Health":"OK"},
  {"Id":"PowerSupplies/0/InputVoltage","Name":"PS1 input voltage","Reading":240,"ReadingUnits":"V","ReadingType":"Voltage"},
  {"Id":"PS1Current","Name":"PS1 Current","Reading":1250,"ReadingUnits":"mA","ReadingType":"Current","Health":"Critical"},
  {"Id":"CPUUsage","Name":"CPU Usage","Reading":80,"ReadingUnits":"%","ReadingType":"Percent","Health":"OK",
   "Thresholds":{"UpperCaution":101}},
  {"Id":"150L0","Name":"Drive 0","Reading":0,"ReadingUnits":"","ReadingType":"Temperature","Health":""},
  {"Id":"CPU1Temp","Name":"CPU1 Temp","Reading":99,"ReadingUnits":"Cel","ReadingType":"Temperature","Health":"OK"}]},
 {"Id":"1","Sources":["EnvironmentMetrics"],"EnergyJoules":789558.5,"EnergySource":"/e","Sensors":[
  {"Id":"Fans/0","Name":"Fan 1","Reading":51,"ReadingUnits":"Percent","ReadingType":"Percent","PhysicalContext":"Fan"},
  {"Id":"Energy","Name":"GPU energy","Reading":0.25,"ReadingUnits":"kW.h","ReadingType":"EnergykWh"}]}]})";

ReadResult Good(const std::string& readings = kReadings) {
  ReadResult r;
  r.powerOn = true;
  r.readings = readings;
  r.seconds = 0.012;
  return r;
}

}  // namespace

TEST(Exposition, EachReadingGoesToTheMetricOfItsUnitInBaseUnits) {
  Snapshot s;
  ApplyRead(s, Good(), 1000);
  const auto samples = Samples(Render(s, {1005, 0.02, "1.7.3"}));
  const std::string dell = R"(chassis="System.Embedded.1",id=")";
  const std::map<std::string, std::string> expected = {
      {"bmcredfish_sensor_temperature_celsius{" + dell + R"(CPU1Temp",name="CPU1 Temp"})", "41"},
      {"bmcredfish_sensor_temperature_crit_celsius{" + dell + R"(CPU1Temp",name="CPU1 Temp"})",
       "99"},
      {"bmcredfish_sensor_temperature_lcrit_celsius{" + dell + R"(CPU1Temp",name="CPU1 Temp"})",
       "3"},
      // Units win over a firmware's wrong ReadingType; voltage is never watts.
      {"bmcredfish_sensor_fan_speed_rpm{" + dell + R"(Fan1A",name="Fan 1A"})", "6431"},
      {"bmcredfish_sensor_fan_speed_lcrit_rpm{" + dell + R"(Fan1A",name="Fan 1A"})", "480"},
      {"bmcredfish_sensor_power_watts{" + dell + R"(67L0",name="PSU2 AC In Pwr"})", "170"},
      {"bmcredfish_sensor_voltage_volts{" + dell +
           R"(PowerSupplies/0/InputVoltage",name="PS1 input voltage"})",
       "240"},
      {"bmcredfish_sensor_current_amperes{" + dell + R"(PS1Current",name="PS1 Current"})", "1.25"},
      {"bmcredfish_sensor_ratio{" + dell + R"(CPUUsage",name="CPU Usage"})", "0.8"},
      {"bmcredfish_sensor_max_ratio{" + dell + R"(CPUUsage",name="CPU Usage"})", "1.01"},
      {"bmcredfish_sensor_reading{" + dell +
           R"(150L0",name="Drive 0",units="",type="Temperature"})",
       "0"},
      {R"(bmcredfish_sensor_fan_duty_ratio{chassis="1",id="Fans/0",name="Fan 1"})", "0.51"},
      {R"(bmcredfish_sensor_energy_joules_total{chassis="1",id="Energy",name="GPU energy"})",
       "9e+05"},
      {R"(bmcredfish_chassis_power_watts{chassis="System.Embedded.1"})", "614"},
      {R"(bmcredfish_chassis_energy_joules_total{chassis="1"})", "789558.5"},
      {"bmcredfish_sensor_health{" + dell + R"(Fan1A",name="Fan 1A"})", "1"},
      {"bmcredfish_sensor_health{" + dell + R"(PS1Current",name="PS1 Current"})", "2"},
      {"bmcredfish_sensor_health{" + dell + R"(150L0",name="Drive 0"})", "NaN"},
      {"bmcredfish_up", "1"},
      {"bmcredfish_stale", "0"},
      {"bmcredfish_power_on", "1"},
      {"bmcredfish_readings_age_seconds", "5"},
      {"bmcredfish_last_success_timestamp_seconds", "1000"},
      {R"(bmcredfish_last_result{call="sensor_readings"})", "0"},
      // The library loaded, not the header the exporter was built with.
      {R"(bmcredfish_exporter_build_info{version=")" BMCREDFISH_VERSION_STRING
       R"(",library_version="1.7.3"})",
       "1"},
  };
  for (const auto& e : expected) {
    auto found = samples.find(e.first);
    ASSERT_NE(found, samples.end()) << e.first;
    EXPECT_EQ(found->second, e.second) << e.first;
  }
  EXPECT_EQ(samples.count(R"(bmcredfish_chassis_power_watts{chassis="1"})"), 0u)
      << "a chassis without a power figure has no such series";
  EXPECT_EQ(samples.count("bmcredfish_sensor_temperature_max_celsius{" + dell +
                          R"(CPU1Temp",name="CPU1 Temp"})"),
            0u)
      << "a threshold the BMC leaves null has no series";

  // A BMC without systems: its readings and up 1, no power series.
  Snapshot chassisManager;
  ReadResult noSystems = Good();
  noSystems.powerOn.reset();
  ApplyRead(chassisManager, noSystems, 1000);
  const auto managed = Samples(Render(chassisManager, {1000, 0, "1.1.0"}));
  EXPECT_EQ(managed.at("bmcredfish_up"), "1");
  EXPECT_EQ(managed.count("bmcredfish_power_on"), 0u);
}

TEST(Exposition, LabelValuesAreTheBmcsTextsAsRedfishctlPrintsThemEscaped) {
  // Printable first (no control byte, valid UTF-8), then the format's escapes.
  EXPECT_EQ(LabelValue("a\"b\\c\nd\xFF\xC2\xB0"), "a\\\"b\\\\c\\\\x0ad\xEF\xBF\xBD\xC2\xB0");
  EXPECT_EQ(SampleValue(0.1 + 0.2), "0.30000000000000004");
  EXPECT_EQ(SampleValue(-1.0 / 0.0), "-Inf");
}
