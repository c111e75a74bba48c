#include "toolkit/readings.h"

#include <rapidjson/document.h>

namespace toolkit {

namespace {

std::string Text(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsString()) return "";
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

}  // namespace

bool ParseReadings(std::string_view json, Readings& readings) {
  rapidjson::Document doc;
  // Iterative: however deep a text nests, the stack is not at risk.
  doc.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto chassisList = doc.FindMember("Chassis");
  if (chassisList == doc.MemberEnd() || !chassisList->value.IsArray()) return false;
  Readings parsed;
  for (const auto& chassis : chassisList->value.GetArray()) {
    if (!chassis.IsObject()) return false;
    auto sensors = chassis.FindMember("Sensors");
    if (sensors == chassis.MemberEnd() || !sensors->value.IsArray()) return false;
    ++parsed.chassis;
    if (Text(chassis, "Source") == "Sensors") ++parsed.fromSensors;
    const std::string chassisId = Text(chassis, "Id");
    for (const auto& s : sensors->value.GetArray()) {
      if (!s.IsObject()) return false;
      Sensor sensor{chassisId,
                    Text(s, "Id"),
                    Text(s, "Name"),
                    Text(s, "ReadingUnits"),
                    Text(s, "ReadingType"),
                    Text(s, "Health"),
                    std::nullopt};
      auto reading = s.FindMember("Reading");
      if (reading != s.MemberEnd() && reading->value.IsNumber())
        sensor.reading = reading->value.GetDouble();
      parsed.sensors.push_back(std::move(sensor));
    }
  }
  readings = std::move(parsed);
  return true;
}

}  // namespace toolkit
