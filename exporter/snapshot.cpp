#include "snapshot.h"

#include <rapidjson/document.h>

#include "bmcredfish.h"

namespace {

std::string Text(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsString()) return "";
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

}  // namespace

bool ParseReadings(const std::string& json, std::vector<Sensor>& out) {
  rapidjson::Document doc;
  doc.Parse(json.c_str(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto chassisList = doc.FindMember("Chassis");
  if (chassisList == doc.MemberEnd() || !chassisList->value.IsArray()) return false;
  for (const auto& chassis : chassisList->value.GetArray()) {
    if (!chassis.IsObject()) return false;
    auto sensors = chassis.FindMember("Sensors");
    if (sensors == chassis.MemberEnd() || !sensors->value.IsArray()) return false;
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
      if (reading != s.MemberEnd() && reading->value.IsNumber()) {
        sensor.reading = reading->value.GetDouble();
      }
      out.push_back(std::move(sensor));
    }
  }
  return true;
}

std::shared_ptr<const Readings> MakeReadings(std::string document) {
  auto readings = std::make_shared<Readings>();
  if (!ParseReadings(document, readings->sensors)) return nullptr;
  readings->document = std::move(document);
  return readings;
}

void ApplyRead(Snapshot& snapshot, const ReadResult& read, double now) {
  snapshot.haveRead = true;
  snapshot.power = read.power;
  snapshot.sensors = read.sensors;
  snapshot.readSeconds = read.seconds;
  if (read.power.result == 0) snapshot.powerOn = read.powerOn;
  if (read.sensors.result == 0) {
    if (auto readings = MakeReadings(read.readings)) {
      snapshot.readings = std::move(readings);
      snapshot.readingsTime = now;
    } else {
      snapshot.sensors = {REDFISH_ERR_UNEXPECTED_JSON, REDFISH_LINK_DOCUMENT};
    }
  }
  ++snapshot.reads;
  if (snapshot.LastReadOk()) {
    snapshot.lastSuccess = now;
  } else {
    ++snapshot.failures;
  }
  snapshot.stale = !snapshot.LastReadOk();
}
