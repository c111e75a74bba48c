#include "resources/documents.h"

#include <rapidjson/pointer.h>

#include "resources/redfish_records.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {

int StringMember(const rapidjson::Value& document, const char* name, std::string& out) {
  std::string value;
  if (!JsonString(document, name, value)) return RedfishStatusUnexpectedJson;
  out = std::move(value);
  return RedfishStatusOk;
}

}  // namespace

int MemberIds(const rapidjson::Value& collection, std::vector<std::string>& ids) {
  const rapidjson::Value* members = JsonMember(collection, "Members");
  if (members == nullptr || !members->IsArray()) return RedfishStatusUnexpectedJson;
  for (const rapidjson::Value& entry : members->GetArray()) {
    std::string id;
    if (!JsonString(entry, "@odata.id", id)) return RedfishStatusUnexpectedJson;
    ids.push_back(std::move(id));
  }
  return RedfishStatusOk;
}

int ManufacturerOf(const rapidjson::Value& system, std::string& manufacturer) {
  if (!system.IsObject()) return RedfishStatusUnexpectedJson;
  return JsonString(system, "Manufacturer", manufacturer) ? RedfishStatusOk
                                                          : RedfishStatusUnknownVendor;
}

int ResetActionOf(const rapidjson::Value& system, ResetAction& action) {
  const rapidjson::Value* actions = JsonMember(system, "Actions");
  const rapidjson::Value* reset = actions ? JsonMember(*actions, "#ComputerSystem.Reset") : nullptr;
  ResetAction found;
  if (reset == nullptr || !JsonString(*reset, "target", found.target)) {
    return RedfishStatusUnexpectedJson;
  }
  JsonString(*reset, "@Redfish.ActionInfo", found.actionInfo);
  action = std::move(found);
  return RedfishStatusOk;
}

int AllowableValuesAt(const rapidjson::Value& document, const char* pointer,
                      const rapidjson::Value*& values) {
  values = rapidjson::Pointer(pointer).Get(document);
  return values != nullptr ? RedfishStatusOk : RedfishStatusDocumentIncomplete;
}

int CommandsOf(const rapidjson::Value& values,
               std::unordered_map<std::string, REDFISHCMD>& commands,
               std::vector<std::string>& seen) {
  if (!values.IsArray()) return RedfishStatusUnexpectedJson;
  for (const rapidjson::Value& value : values.GetArray()) {
    if (!value.IsString()) return RedfishStatusUnexpectedJson;
    std::string name(value.GetString(), value.GetStringLength());
    for (int i = 0; i < kResetTypeCount; ++i) {
      if (name == kResetTypes[i]) {
        commands[name] = static_cast<REDFISHCMD>(i);
        break;
      }
    }
    seen.push_back(std::move(name));
  }
  return RedfishStatusOk;
}

int PowerStateOf(const rapidjson::Value& system, std::string& state) {
  return StringMember(system, "PowerState", state);
}

int MacAddressOf(const rapidjson::Value& interface, std::string& mac) {
  return StringMember(interface, "MACAddress", mac);
}

}  // namespace redfish
