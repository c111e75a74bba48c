#include "toolkit/readings.h"

#include <strings.h>

#include "toolkit/json_members.h"

namespace toolkit {

const char* const kThresholdNames[kThresholdCount] = {
    "UpperCaution", "UpperCritical", "UpperFatal", "LowerCaution", "LowerCritical", "LowerFatal"};

namespace {

using json::Number;
using json::Text;

// The spellings real BMCs use: UCUM ("Cel", "%", "{rev}/min"), and the words
// some firmware prints ("C", "Watts", "Percent").
struct UnitRule {
  const char* units;  // compared ignoring case
  Quantity quantity;
  double scale;
};
constexpr UnitRule kUnitRules[] = {
    {"Cel", Quantity::Temperature, 1},
    {"C", Quantity::Temperature, 1},
    {"Celsius", Quantity::Temperature, 1},
    {"W", Quantity::Power, 1},
    {"Watts", Quantity::Power, 1},
    {"kW", Quantity::Power, 1e3},
    {"mW", Quantity::Power, 1e-3},
    {"V", Quantity::Voltage, 1},
    {"Volts", Quantity::Voltage, 1},
    {"mV", Quantity::Voltage, 1e-3},
    {"A", Quantity::Current, 1},
    {"Amps", Quantity::Current, 1},
    {"Amperes", Quantity::Current, 1},
    {"mA", Quantity::Current, 1e-3},
    {"RPM", Quantity::FanSpeed, 1},
    {"{rev}/min", Quantity::FanSpeed, 1},
    {"%", Quantity::Ratio, 1e-2},
    {"Percent", Quantity::Ratio, 1e-2},
    {"Hz", Quantity::Frequency, 1},
    {"J", Quantity::Energy, 1},
    {"kJ", Quantity::Energy, 1e3},
    {"W.h", Quantity::Energy, 3.6e3},
    {"Wh", Quantity::Energy, 3.6e3},
    {"kW.h", Quantity::Energy, 3.6e6},
    {"kWh", Quantity::Energy, 3.6e6},
    {"Pa", Quantity::Pressure, 1},
    {"kPa", Quantity::Pressure, 1e3},
    {"[ft_i]3/min", Quantity::Airflow, 0.3048 * 0.3048 * 0.3048 / 60},
    {"CFM", Quantity::Airflow, 0.3048 * 0.3048 * 0.3048 / 60},
    {"m3/min", Quantity::Airflow, 1.0 / 60},
};

}  // namespace

Meaning MeaningOf(const Sensor& sensor) {
  for (const UnitRule& rule : kUnitRules) {
    if (strcasecmp(rule.units, sensor.units.c_str()) != 0) continue;
    if (rule.quantity != Quantity::Ratio) return {rule.quantity, rule.scale};
    // A percentage says what of by its type or its place.
    if (sensor.type == "Rotational" || sensor.physicalContext == "Fan")
      return {Quantity::FanDuty, rule.scale};
    if (sensor.type == "Humidity") return {Quantity::Humidity, rule.scale};
    return {Quantity::Ratio, rule.scale};
  }
  return {Quantity::Other, 1};
}

bool ParseReadings(std::string_view json, Readings& readings) {
  rapidjson::Document doc;
  if (!json::ParseObject(json, doc)) return false;
  const json::Value* chassisList = json::Member(doc, "Chassis", rapidjson::kArrayType);
  if (chassisList == nullptr) return false;
  Readings parsed;
  for (const auto& chassis : chassisList->GetArray()) {
    if (!chassis.IsObject()) return false;
    const json::Value* sensors = json::Member(chassis, "Sensors", rapidjson::kArrayType);
    if (sensors == nullptr) return false;
    Chassis c;
    c.id = Text(chassis, "Id");
    if (const json::Value* sources = json::Member(chassis, "Sources", rapidjson::kArrayType)) {
      for (const auto& s : sources->GetArray()) {
        if (s.IsString()) c.sources.emplace_back(s.GetString(), s.GetStringLength());
      }
    }
    c.hasPower = !Text(chassis, "PowerSource").empty();
    c.powerWatts = Number(chassis, "PowerWatts");
    c.hasEnergy = !Text(chassis, "EnergySource").empty();
    c.energyJoules = Number(chassis, "EnergyJoules");
    for (const std::string& s : c.sources) parsed.fromSensors += s == "Sensors";
    for (const auto& s : sensors->GetArray()) {
      if (!s.IsObject()) return false;
      Sensor sensor{c.id,
                    Text(s, "Id"),
                    Text(s, "Name"),
                    Text(s, "ReadingUnits"),
                    Text(s, "ReadingType"),
                    Text(s, "PhysicalContext"),
                    Text(s, "Health"),
                    Text(s, "DataSourceUri"),
                    Number(s, "Reading"),
                    {}};
      if (const json::Value* thresholds = json::Member(s, "Thresholds", rapidjson::kObjectType)) {
        for (int i = 0; i < kThresholdCount; ++i)
          sensor.thresholds[i] = Number(*thresholds, kThresholdNames[i]);
      }
      parsed.sensors.push_back(std::move(sensor));
    }
    parsed.chassis.push_back(std::move(c));
  }
  readings = std::move(parsed);
  return true;
}

}  // namespace toolkit
