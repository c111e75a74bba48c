#include "resources/readings.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>

#include "utils/json_access.h"
#include "utils/redfish_status.h"
#include "utils/utf8.h"

namespace redfish {

namespace {

using Value = rapidjson::Value;

std::string Text(const Value& object, const char* name) {
  std::string value;
  JsonString(object, name, value);
  return value;
}

std::string StatusField(const Value& object, const char* name) {
  const Value* status = JsonMember(object, "Status");
  return status != nullptr ? Text(*status, name) : std::string();
}

std::optional<double> Number(const Value& object, const char* name) {
  const Value* value = JsonMember(object, name);
  if (value == nullptr || !value->IsNumber()) return std::nullopt;
  return value->GetDouble();
}

// One entry of a Thermal or Power array: the reading under its own property
// name (or an older schema's), the units that name implies unless the entry
// gives its own.
struct ArrayKind {
  const char* array;
  const char* readings[3];
  const char* units;
  const char* type;
};

// Older fans: "ReadingRPM" (the first Thermal schema) and "CurrentReading"
// with "Units" (HPE iLO 4, before the standard names).
constexpr ArrayKind kThermalArrays[] = {
    {"Temperatures", {"ReadingCelsius"}, "Cel", "Temperature"},
    {"Fans", {"Reading", "ReadingRPM", "CurrentReading"}, "RPM", "Rotational"},
};
constexpr ArrayKind kPowerArrays[] = {
    {"Voltages", {"ReadingVolts"}, "V", "Voltage"},
    {"PowerControl", {"PowerConsumedWatts"}, "W", "Power"},
    {"PowerSupplies", {"LastPowerOutputWatts"}, "W", "Power"},
};

template <size_t N>
void ReadArrays(const Value& document, const ArrayKind (&kinds)[N],
                std::vector<SensorReading>& out) {
  for (const ArrayKind& kind : kinds) {
    const Value* entries = JsonMember(document, kind.array);
    if (entries == nullptr || !entries->IsArray()) continue;
    size_t index = 0;
    for (const Value& entry : entries->GetArray()) {
      const std::string position = std::to_string(index++);
      if (!entry.IsObject() || StatusField(entry, "State") == "Absent") continue;
      SensorReading r;
      // Member ids repeat across the arrays ("0" in each): the array names it.
      std::string member = Text(entry, "MemberId");
      r.id = std::string(kind.array) + "/" + (member.empty() ? position : member);
      r.name = Text(entry, "Name");
      if (r.name.empty()) r.name = Text(entry, "FanName");  // older Thermal schemas
      if (r.name.empty())
        r.name = std::string(kind.array) + " " + (member.empty() ? position : member);
      for (const char* name : kind.readings) {
        if (name == nullptr || r.reading) break;
        r.reading = Number(entry, name);
      }
      r.units = Text(entry, "ReadingUnits");
      if (r.units.empty()) r.units = Text(entry, "Units");
      if (r.units.empty()) r.units = kind.units;
      r.type = kind.type;
      r.health = StatusField(entry, "Health");
      out.push_back(std::move(r));
    }
  }
}

// The BMC's texts are written as valid UTF-8, whatever it sent.
void WriteString(rapidjson::Writer<rapidjson::StringBuffer>& w, const char* key,
                 const std::string& value) {
  const std::string text = ValidUtf8(value);
  w.Key(key);
  w.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
}

}  // namespace

int ReadingsOfSensors(const Value& collection, std::vector<SensorReading>& out) {
  const Value* members = JsonMember(collection, "Members");
  if (members == nullptr || !members->IsArray()) return RedfishStatusUnexpectedJson;
  for (const Value& member : members->GetArray()) {
    if (!member.IsObject() || StatusField(member, "State") == "Absent") continue;
    SensorReading r;
    r.id = Text(member, "Id");
    r.name = Text(member, "Name");
    // A member that is only a link (a BMC that did not expand) is no reading.
    if (r.id.empty() && r.name.empty()) continue;
    if (r.id.empty()) r.id = r.name;
    r.reading = Number(member, "Reading");
    r.units = Text(member, "ReadingUnits");
    r.type = Text(member, "ReadingType");
    r.health = StatusField(member, "Health");
    out.push_back(std::move(r));
  }
  return RedfishStatusOk;
}

void ReadingsOfThermal(const Value& thermal, std::vector<SensorReading>& out) {
  ReadArrays(thermal, kThermalArrays, out);
}

void ReadingsOfPower(const Value& power, std::vector<SensorReading>& out) {
  ReadArrays(power, kPowerArrays, out);
}

bool HasInlineThermalOrPower(const Value& chassis) {
  for (const char* name : {"Thermal", "Power"}) {
    const Value* member = JsonMember(chassis, name);
    if (member == nullptr || !member->IsObject()) continue;
    // A link holds only "@odata.id"; an expanded resource holds its arrays.
    for (const auto& m : member->GetObject()) {
      if (m.value.IsArray()) return true;
    }
  }
  return false;
}

void ThermalAndPowerLinks(const Value& chassis, std::string& thermal, std::string& power) {
  const Value* t = JsonMember(chassis, "Thermal");
  const Value* p = JsonMember(chassis, "Power");
  thermal = t != nullptr ? Text(*t, "@odata.id") : std::string();
  power = p != nullptr ? Text(*p, "@odata.id") : std::string();
}

std::string ReadingsDocument(const std::vector<ChassisReadings>& chassis) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  w.Key("Chassis");
  w.StartArray();
  for (const ChassisReadings& c : chassis) {
    w.StartObject();
    WriteString(w, "Id", c.id);
    WriteString(w, "@odata.id", c.odataId);
    WriteString(w, "Source", c.source);
    w.Key("Sensors");
    w.StartArray();
    for (const SensorReading& s : c.sensors) {
      w.StartObject();
      WriteString(w, "Id", s.id);
      WriteString(w, "Name", s.name);
      w.Key("Reading");
      // A reading JSON cannot hold (infinity) is no reading.
      if (s.reading && std::isfinite(*s.reading)) {
        w.Double(*s.reading);
      } else {
        w.Null();
      }
      WriteString(w, "ReadingUnits", s.units);
      WriteString(w, "ReadingType", s.type);
      WriteString(w, "Health", s.health);
      w.EndObject();
    }
    w.EndArray();
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace redfish
