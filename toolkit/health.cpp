#include "toolkit/health.h"

#include <rapidjson/document.h>

namespace toolkit {

namespace {

using Value = rapidjson::Value;

std::string Text(const Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsString()) return "";
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

double Number(const Value& object, const char* name) {
  auto it = object.FindMember(name);
  return it != object.MemberEnd() && it->value.IsNumber() ? it->value.GetDouble() : 0;
}

size_t Count(const Value& object, const char* name) {
  const double n = Number(object, name);
  return n >= 0 && n < 1e15 ? static_cast<size_t>(n) : 0;
}

const Value* Array(const Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsArray()) return nullptr;
  for (const Value& entry : it->value.GetArray()) {
    if (!entry.IsObject()) return nullptr;
  }
  return &it->value;
}

HealthPart PartOf(const Value& entry, const char* kind) {
  HealthPart p{kind != nullptr ? kind : Text(entry, "Kind"),
               Text(entry, "Id"),
               Text(entry, "Name"),
               Text(entry, "Parent"),
               Text(entry, "State"),
               Text(entry, "Health"),
               ""};
  auto status = entry.FindMember("Status");
  if (status != entry.MemberEnd() && status->value.IsObject()) {
    p.state = Text(status->value, "State");
    p.health = Text(status->value, "Health");
    p.healthRollup = Text(status->value, "HealthRollup");
  }
  if (p.name.empty()) p.name = p.id;
  return p;
}

}  // namespace

bool ParseHealth(std::string_view json, Health& health) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto rollup = doc.FindMember("Health");
  auto read = doc.FindMember("Read");
  const Value* causes = Array(doc, "Causes");
  const Value* systems = Array(doc, "Systems");
  const Value* chassis = Array(doc, "Chassis");
  const Value* parts = Array(doc, "Parts");
  const Value* firmware = Array(doc, "Firmware");
  if (rollup == doc.MemberEnd() || !rollup->value.IsString() || read == doc.MemberEnd() ||
      !read->value.IsObject() || causes == nullptr || systems == nullptr || chassis == nullptr ||
      parts == nullptr || firmware == nullptr) {
    return false;
  }
  Health parsed;
  parsed.health = rollup->value.GetString();
  for (const Value& e : causes->GetArray()) parsed.causes.push_back(PartOf(e, nullptr));
  for (const Value& e : systems->GetArray()) parsed.systems.push_back(PartOf(e, "System"));
  for (const Value& e : chassis->GetArray()) parsed.chassis.push_back(PartOf(e, "Chassis"));
  for (const Value& e : parts->GetArray()) parsed.parts.push_back(PartOf(e, nullptr));
  for (const Value& e : firmware->GetArray()) {
    parsed.firmware.push_back(
        {Text(e, "Kind"), Text(e, "Id"), Text(e, "Name"), Text(e, "Version")});
  }
  parsed.causesLeftOut = Count(doc, "CausesLeftOut");
  parsed.readAt = Number(read->value, "At");
  parsed.partsAt = Number(read->value, "PartsAt");
  parsed.firmwareAt = Number(read->value, "FirmwareAt");
  parsed.partsLeftOut = Count(read->value, "PartsLeftOut");
  auto gaps = read->value.FindMember("Gaps");
  if (gaps != read->value.MemberEnd() && gaps->value.IsArray()) parsed.gaps = gaps->value.Size();
  health = std::move(parsed);
  return true;
}

int HealthValue(const std::string& health) {
  if (health == "OK") return 0;
  if (health == "Warning") return 1;
  if (health == "Critical") return 2;
  return -1;
}

}  // namespace toolkit
