#include "resources/health_document.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "resources/json_output.h"
#include "utils/json_access.h"

namespace redfish {

namespace {

using Value = rapidjson::Value;

// A text member of a record and its name in the document: what
// HealthDocument writes, ParseHealthDocument reads back.
template <typename Record>
struct TextMember {
  const char* name;
  std::string Record::*member;
};

constexpr TextMember<SystemHealth> kSystemTexts[] = {{"Id", &SystemHealth::id},
                                                     {"@odata.id", &SystemHealth::odataId},
                                                     {"PowerState", &SystemHealth::powerState}};
constexpr TextMember<Part> kChassisTexts[] = {
    {"Id", &Part::id}, {"Name", &Part::name}, {"@odata.id", &Part::odataId}};
constexpr TextMember<Part> kPartTexts[] = {{"Id", &Part::id},         {"Name", &Part::name},
                                           {"Parent", &Part::parent}, {"@odata.id", &Part::odataId},
                                           {"State", &Part::state},   {"Health", &Part::health}};
constexpr TextMember<Cause> kCauseTexts[] = {{"Id", &Cause::id},
                                             {"Name", &Cause::name},
                                             {"Parent", &Cause::parent},
                                             {"@odata.id", &Cause::odataId}};
constexpr TextMember<FirmwareEntry> kFirmwareTexts[] = {{"Kind", &FirmwareEntry::kind},
                                                        {"Id", &FirmwareEntry::id},
                                                        {"Name", &FirmwareEntry::name},
                                                        {"Version", &FirmwareEntry::version},
                                                        {"@odata.id", &FirmwareEntry::odataId}};
// The times of the reads, in Unix seconds.
constexpr std::pair<const char*, int64_t HealthReport::*> kReadTimes[] = {
    {"At", &HealthReport::readAt},
    {"PartsAt", &HealthReport::partsAt},
    {"FirmwareAt", &HealthReport::firmwareAt}};

void Text(JsonWriter& w, const char* key, const std::string& value) {
  WriteText(w, key, value, kMaxText);
}

std::string Get(const Value& object, const char* name) { return JsonText(object, name, kMaxText); }

template <typename Record, typename Members>
void WriteMembers(JsonWriter& w, const Record& record, const Members& members,
                  size_t limit = kMaxText) {
  for (const auto& m : members) WriteText(w, m.name, record.*m.member, limit);
}

template <typename Record, typename Members>
void ReadMembers(const Value& entry, Record& record, const Members& members) {
  for (const auto& m : members) record.*m.member = Get(entry, m.name);
}

template <typename Record>
void WriteStatus(JsonWriter& w, const Record& r, size_t limit) {
  WriteTexts(w, "Status",
             {{"State", r.state}, {"Health", r.health}, {"HealthRollup", r.healthRollup}}, limit);
}

template <typename Record>
void ReadStatus(const Value& entry, Record& r) {
  const Value* status = JsonMember(entry, "Status");
  if (status == nullptr) return;
  r.state = Get(*status, "State");
  r.health = Get(*status, "Health");
  r.healthRollup = Get(*status, "HealthRollup");
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

void WriteSystem(JsonWriter& w, const SystemHealth& system, size_t limit) {
  WriteMembers(w, system, kSystemTexts, limit);
  WriteStatus(w, system, limit);
}

std::string HealthDocument(const HealthReport& report) {
  std::vector<Cause> causes;
  const HealthLevel level = Rollup(report, causes);
  const size_t causesLeftOut = causes.size() > kMaxCauses ? causes.size() - kMaxCauses : 0;
  causes.resize(causes.size() - causesLeftOut);
  return JsonObjectText([&](JsonWriter& w) {
    Text(w, "Health", LevelText(level));
    WriteObjects(w, "Causes", causes, [&](const Cause& c) {
      Text(w, "Kind", KindName(c.kind));
      WriteMembers(w, c, kCauseTexts);
      Text(w, "Health", LevelText(c.level));
    });
    w.Key("CausesLeftOut");
    w.Uint64(causesLeftOut);
    WriteObjects(w, "Systems", report.systems,
                 [&](const SystemHealth& s) { WriteSystem(w, s, kMaxText); });
    WriteObjects(w, "Chassis", report.chassis, [&](const Part& c) {
      WriteMembers(w, c, kChassisTexts);
      WriteStatus(w, c, kMaxText);
    });
    WriteObjects(w, "Parts", report.parts, [&](const Part& p) {
      Text(w, "Kind", KindName(p.kind));
      WriteMembers(w, p, kPartTexts);
    });
    WriteObjects(w, "Firmware", report.firmware,
                 [&](const FirmwareEntry& f) { WriteMembers(w, f, kFirmwareTexts); });
    w.Key("Read");
    w.StartObject();
    for (const auto& [name, at] : kReadTimes) {
      w.Key(name);
      w.Int64(report.*at);
    }
    w.Key("Requests");
    w.Uint64(report.requests);
    w.Key("PartsLeftOut");
    w.Uint64(report.partsLeftOut);
    w.Key("Gaps");
    w.StartArray();
    for (const std::string& gap : report.gaps) WriteString(w, gap);
    w.EndArray();
    WriteTexts(w, "Watched",
               {{"Health", report.watched},
                {"Firmware", report.firmwareWatched},
                {"Sensors", report.sensorsWatched}},
               kMaxText);
    w.EndObject();
  });
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
    ReadMembers(e, s, kSystemTexts);
    ReadStatus(e, s);
    report.systems.push_back(std::move(s));
  });
  Entries(d, "Chassis", [&](const Value& e) {
    Part c;
    c.kind = PartKind::Chassis;
    ReadMembers(e, c, kChassisTexts);
    ReadStatus(e, c);
    report.chassis.push_back(std::move(c));
  });
  Entries(d, "Parts", [&](const Value& e) {
    Part p;
    if (!KindFromName(Get(e, "Kind"), p.kind)) return;
    ReadMembers(e, p, kPartTexts);
    report.parts.push_back(std::move(p));
  });
  Entries(d, "Firmware", [&](const Value& e) {
    FirmwareEntry f;
    ReadMembers(e, f, kFirmwareTexts);
    report.firmware.push_back(std::move(f));
  });
  for (const auto& [name, at] : kReadTimes) report.*at = Seconds(*read, name);
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
