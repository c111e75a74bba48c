#include "resources/health_document.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "utils/json_access.h"
#include "utils/utf8.h"

namespace redfish {

namespace {

using Value = rapidjson::Value;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void Text(Writer& w, const char* key, const std::string& value) {
  const std::string valid = ValidUtf8(value.substr(0, kMaxText));
  w.Key(key);
  w.String(valid.c_str(), static_cast<rapidjson::SizeType>(valid.size()));
}

std::string Get(const Value& object, const char* name) {
  std::string value;
  JsonString(object, name, value);
  if (value.size() > kMaxText) value.resize(kMaxText);
  return value;
}

int64_t Seconds(const Value& object, const char* name) {
  const Value* value = JsonMember(object, name);
  return value != nullptr && value->IsInt64() ? value->GetInt64() : 0;
}

// The entries of an array member that are objects, at most kMaxEntries.
template <typename Each>
void Entries(const Value& object, const char* name, Each each) {
  const Value* array = JsonMember(object, name);
  if (array == nullptr || !array->IsArray()) return;
  size_t taken = 0;
  for (const Value& entry : array->GetArray()) {
    if (taken == kMaxEntries) break;
    if (!entry.IsObject()) continue;
    each(entry);
    ++taken;
  }
}

void WriteStatus(Writer& w, const std::string& state, const std::string& health,
                 const std::string& rollup) {
  w.Key("Status");
  w.StartObject();
  Text(w, "State", state);
  Text(w, "Health", health);
  Text(w, "HealthRollup", rollup);
  w.EndObject();
}

void ReadStatus(const Value& entry, std::string& state, std::string& health, std::string& rollup) {
  const Value* status = JsonMember(entry, "Status");
  if (status == nullptr) return;
  state = Get(*status, "State");
  health = Get(*status, "Health");
  rollup = Get(*status, "HealthRollup");
}

HealthLevel Worse(HealthLevel a, HealthLevel b) { return a < b ? b : a; }

Cause CauseOf(const Part& part, HealthLevel level) {
  return {part.kind, part.id, part.name, part.parent, part.odataId, level};
}

}  // namespace

std::string Hex(uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%016" PRIx64, value);
  return text;
}

HealthLevel Rollup(const HealthReport& report, std::vector<Cause>& causes) {
  causes.clear();
  HealthLevel parts = HealthLevel::Unknown;
  for (const Part& part : report.parts) {
    if (part.Absent()) continue;
    const HealthLevel level = LevelOf(part.health);
    parts = Worse(parts, level);
    if (level >= HealthLevel::Warning) causes.push_back(CauseOf(part, level));
  }
  for (const SensorHealth& s : report.sensors) {
    const HealthLevel level = LevelOf(s.health);
    parts = Worse(parts, level);
    if (level >= HealthLevel::Warning) {
      causes.push_back({PartKind::Sensor, s.id, s.name, s.chassis, "", level});
    }
  }
  // What the BMC rolled up: named only where nothing read explains it.
  std::vector<Part> containers = report.chassis;
  for (const SystemHealth& s : report.systems) {
    Part system;
    system.kind = PartKind::System;
    system.id = s.id;
    system.name = s.id;
    system.odataId = s.odataId;
    system.state = s.state;
    system.health = s.health;
    system.healthRollup = s.healthRollup;
    containers.insert(containers.begin(), system);
  }
  for (const Part& part : report.parts) {
    if (part.kind == PartKind::Manager) containers.push_back(part);
  }
  HealthLevel worst = parts;
  for (const Part& c : containers) {
    if (c.Absent()) continue;
    const HealthLevel level = Worse(LevelOf(c.health), LevelOf(c.healthRollup));
    worst = Worse(worst, level);
    if (level >= HealthLevel::Warning && level > parts) causes.push_back(CauseOf(c, level));
  }
  std::stable_sort(causes.begin(), causes.end(),
                   [](const Cause& a, const Cause& b) { return a.level > b.level; });
  return worst;
}

std::string HealthDocument(const HealthReport& report) {
  std::vector<Cause> causes;
  const HealthLevel level = Rollup(report, causes);
  rapidjson::StringBuffer buffer;
  Writer w(buffer);
  w.StartObject();
  Text(w, "Health", LevelText(level));
  w.Key("Causes");
  w.StartArray();
  for (size_t i = 0; i < causes.size() && i < kMaxCauses; ++i) {
    const Cause& c = causes[i];
    w.StartObject();
    Text(w, "Kind", KindName(c.kind));
    Text(w, "Id", c.id);
    Text(w, "Name", c.name);
    Text(w, "Parent", c.parent);
    Text(w, "@odata.id", c.odataId);
    Text(w, "Health", LevelText(c.level));
    w.EndObject();
  }
  w.EndArray();
  w.Key("CausesLeftOut");
  w.Uint64(causes.size() > kMaxCauses ? causes.size() - kMaxCauses : 0);
  w.Key("Systems");
  w.StartArray();
  for (const SystemHealth& s : report.systems) {
    w.StartObject();
    Text(w, "Id", s.id);
    Text(w, "@odata.id", s.odataId);
    Text(w, "PowerState", s.powerState);
    WriteStatus(w, s.state, s.health, s.healthRollup);
    w.EndObject();
  }
  w.EndArray();
  w.Key("Chassis");
  w.StartArray();
  for (const Part& c : report.chassis) {
    w.StartObject();
    Text(w, "Id", c.id);
    Text(w, "Name", c.name);
    Text(w, "@odata.id", c.odataId);
    WriteStatus(w, c.state, c.health, c.healthRollup);
    w.EndObject();
  }
  w.EndArray();
  w.Key("Parts");
  w.StartArray();
  for (const Part& p : report.parts) {
    w.StartObject();
    Text(w, "Kind", KindName(p.kind));
    Text(w, "Id", p.id);
    Text(w, "Name", p.name);
    Text(w, "Parent", p.parent);
    Text(w, "@odata.id", p.odataId);
    Text(w, "State", p.state);
    Text(w, "Health", p.health);
    w.EndObject();
  }
  w.EndArray();
  w.Key("Firmware");
  w.StartArray();
  for (const FirmwareEntry& f : report.firmware) {
    w.StartObject();
    Text(w, "Kind", f.kind);
    Text(w, "Id", f.id);
    Text(w, "Name", f.name);
    Text(w, "Version", f.version);
    Text(w, "@odata.id", f.odataId);
    w.EndObject();
  }
  w.EndArray();
  w.Key("Read");
  w.StartObject();
  w.Key("At");
  w.Int64(report.readAt);
  w.Key("PartsAt");
  w.Int64(report.partsAt);
  w.Key("FirmwareAt");
  w.Int64(report.firmwareAt);
  w.Key("Requests");
  w.Uint64(report.requests);
  w.Key("PartsLeftOut");
  w.Uint64(report.partsLeftOut);
  w.Key("Gaps");
  w.StartArray();
  for (const std::string& gap : report.gaps) {
    const std::string valid = ValidUtf8(gap);
    w.String(valid.c_str(), static_cast<rapidjson::SizeType>(valid.size()));
  }
  w.EndArray();
  w.Key("Watched");
  w.StartObject();
  Text(w, "Health", report.watched);
  Text(w, "Firmware", report.firmwareWatched);
  Text(w, "Sensors", report.sensorsWatched);
  w.EndObject();
  w.EndObject();
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

bool ParseHealthDocument(const std::string& text, HealthReport& report) {
  report = HealthReport();
  rapidjson::Document d;
  ParseJson(d, text);
  if (d.HasParseError() || !d.IsObject()) return false;
  const Value* read = JsonMember(d, "Read");
  if (read == nullptr || !read->IsObject()) return false;
  Entries(d, "Systems", [&](const Value& e) {
    SystemHealth s;
    s.id = Get(e, "Id");
    s.odataId = Get(e, "@odata.id");
    s.powerState = Get(e, "PowerState");
    ReadStatus(e, s.state, s.health, s.healthRollup);
    report.systems.push_back(std::move(s));
  });
  Entries(d, "Chassis", [&](const Value& e) {
    Part c;
    c.kind = PartKind::Chassis;
    c.id = Get(e, "Id");
    c.name = Get(e, "Name");
    c.odataId = Get(e, "@odata.id");
    ReadStatus(e, c.state, c.health, c.healthRollup);
    report.chassis.push_back(std::move(c));
  });
  Entries(d, "Parts", [&](const Value& e) {
    Part p;
    if (!KindFromName(Get(e, "Kind"), p.kind)) return;
    p.id = Get(e, "Id");
    p.name = Get(e, "Name");
    p.parent = Get(e, "Parent");
    p.odataId = Get(e, "@odata.id");
    p.state = Get(e, "State");
    p.health = Get(e, "Health");
    report.parts.push_back(std::move(p));
  });
  Entries(d, "Firmware", [&](const Value& e) {
    report.firmware.push_back(
        {Get(e, "Kind"), Get(e, "Id"), Get(e, "Name"), Get(e, "Version"), Get(e, "@odata.id")});
  });
  report.readAt = Seconds(*read, "At");
  report.partsAt = Seconds(*read, "PartsAt");
  report.firmwareAt = Seconds(*read, "FirmwareAt");
  const Value* left = JsonMember(*read, "PartsLeftOut");
  if (left != nullptr && left->IsUint64()) report.partsLeftOut = left->GetUint64();
  const Value* gaps = JsonMember(*read, "Gaps");
  if (gaps != nullptr && gaps->IsArray()) {
    for (const Value& gap : gaps->GetArray()) {
      if (gap.IsString() && report.gaps.size() < kMaxEntries)
        report.gaps.push_back(gap.GetString());
    }
  }
  if (const Value* watched = JsonMember(*read, "Watched")) {
    report.watched = Get(*watched, "Health");
    report.firmwareWatched = Get(*watched, "Firmware");
    report.sensorsWatched = Get(*watched, "Sensors");
  }
  return true;
}

bool SensorHealthOf(const std::string& readings, std::vector<SensorHealth>& notOk,
                    std::string& digest) {
  rapidjson::Document d;
  ParseJson(d, readings);
  const Value* chassis = JsonMember(d, "Chassis");
  if (d.HasParseError() || chassis == nullptr || !chassis->IsArray()) return false;
  uint64_t hash = Fnv1a("");
  notOk.clear();
  for (const Value& c : chassis->GetArray()) {
    const Value* sensors = JsonMember(c, "Sensors");
    if (sensors == nullptr || !sensors->IsArray()) continue;
    const std::string chassisId = Get(c, "Id");
    for (const Value& s : sensors->GetArray()) {
      SensorHealth sensor{chassisId, Get(s, "Id"), Get(s, "Name"), Get(s, "Health")};
      hash = Fnv1a(sensor.chassis + '\0' + sensor.id + '\0' + sensor.health + '\n', hash);
      if (LevelOf(sensor.health) >= HealthLevel::Warning && notOk.size() < kMaxEntries) {
        notOk.push_back(std::move(sensor));
      }
    }
  }
  digest = Hex(hash);
  return true;
}

}  // namespace redfish
