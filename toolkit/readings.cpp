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
// some firmware prints ("C", "Watts", "Percent"), each with the factor to its
// quantity's base unit.
struct UnitRule {
  Quantity quantity;
  double scale;
  const char* units[3];  // compared ignoring case
};
constexpr UnitRule kUnitRules[] = {
    {Quantity::Temperature, 1, {"Cel", "C", "Celsius"}},
    {Quantity::Power, 1, {"W", "Watts"}},
    {Quantity::Power, 1e3, {"kW"}},
    {Quantity::Power, 1e-3, {"mW"}},
    {Quantity::Voltage, 1, {"V", "Volts"}},
    {Quantity::Voltage, 1e-3, {"mV"}},
    {Quantity::Current, 1, {"A", "Amps", "Amperes"}},
    {Quantity::Current, 1e-3, {"mA"}},
    {Quantity::FanSpeed, 1, {"RPM", "{rev}/min"}},
    {Quantity::Ratio, 1e-2, {"%", "Percent"}},
    {Quantity::Frequency, 1, {"Hz"}},
    {Quantity::Energy, 1, {"J"}},
    {Quantity::Energy, 1e3, {"kJ"}},
    {Quantity::Energy, 3.6e3, {"W.h", "Wh"}},
    {Quantity::Energy, 3.6e6, {"kW.h", "kWh"}},
    {Quantity::Pressure, 1, {"Pa"}},
    {Quantity::Pressure, 1e3, {"kPa"}},
    {Quantity::Airflow, 0.3048 * 0.3048 * 0.3048 / 60, {"[ft_i]3/min", "CFM"}},
    {Quantity::Airflow, 1.0 / 60, {"m3/min"}},
};

bool Spelled(const UnitRule& rule, const std::string& units) {
  for (const char* spelling : rule.units) {
    if (spelling != nullptr && strcasecmp(spelling, units.c_str()) == 0) return true;
  }
  return false;
}

}  // namespace

Meaning MeaningOf(const Sensor& sensor) {
  for (const UnitRule& rule : kUnitRules) {
    if (!Spelled(rule, sensor.units)) continue;
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
