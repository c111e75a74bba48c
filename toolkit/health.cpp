#include "toolkit/health.h"

#include "toolkit/json_members.h"

namespace toolkit {

namespace {

using json::Text;
using json::Value;

double Number(const Value& object, const char* name) {
  return json::Number(object, name).value_or(0);
}

size_t Count(const Value& object, const char* name) {
  const double n = Number(object, name);
  return n >= 0 && n < 1e15 ? static_cast<size_t>(n) : 0;
}

// An array of objects, else null.
const Value* Objects(const Value& object, const char* name) {
  const Value* array = json::Member(object, name, rapidjson::kArrayType);
  if (array == nullptr) return nullptr;
  for (const Value& entry : array->GetArray()) {
    if (!entry.IsObject()) return nullptr;
  }
  return array;
}

HealthPart PartOf(const Value& entry, const char* kind) {
  HealthPart p{kind != nullptr ? kind : Text(entry, "Kind"),
               Text(entry, "Id"),
               Text(entry, "Name"),
               Text(entry, "Parent"),
               Text(entry, "State"),
               Text(entry, "Health"),
               ""};
  if (const Value* status = json::Member(entry, "Status", rapidjson::kObjectType)) {
    p.state = Text(*status, "State");
    p.health = Text(*status, "Health");
    p.healthRollup = Text(*status, "HealthRollup");
  }
  if (p.name.empty()) p.name = p.id;
  return p;
}

}  // namespace

bool ParseHealth(std::string_view json, Health& health) {
  rapidjson::Document doc;
  if (!json::ParseObject(json, doc)) return false;
  const Value* rollup = json::Member(doc, "Health", rapidjson::kStringType);
  const Value* read = json::Member(doc, "Read", rapidjson::kObjectType);
  const Value* causes = Objects(doc, "Causes");
  const Value* systems = Objects(doc, "Systems");
  const Value* chassis = Objects(doc, "Chassis");
  const Value* parts = Objects(doc, "Parts");
  const Value* firmware = Objects(doc, "Firmware");
  if (rollup == nullptr || read == nullptr || causes == nullptr || systems == nullptr ||
      chassis == nullptr || parts == nullptr || firmware == nullptr) {
    return false;
  }
  Health parsed;
  parsed.health = rollup->GetString();
  for (const Value& e : causes->GetArray()) parsed.causes.push_back(PartOf(e, nullptr));
  for (const Value& e : systems->GetArray()) parsed.systems.push_back(PartOf(e, "System"));
  for (const Value& e : chassis->GetArray()) parsed.chassis.push_back(PartOf(e, "Chassis"));
  for (const Value& e : parts->GetArray()) parsed.parts.push_back(PartOf(e, nullptr));
  for (const Value& e : firmware->GetArray()) {
    parsed.firmware.push_back(
        {Text(e, "Kind"), Text(e, "Id"), Text(e, "Name"), Text(e, "Version")});
  }
  parsed.causesLeftOut = Count(doc, "CausesLeftOut");
  parsed.readAt = Number(*read, "At");
  parsed.partsAt = Number(*read, "PartsAt");
  parsed.firmwareAt = Number(*read, "FirmwareAt");
  parsed.partsLeftOut = Count(*read, "PartsLeftOut");
  if (const Value* gaps = json::Member(*read, "Gaps", rapidjson::kArrayType))
    parsed.gaps = gaps->Size();
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
