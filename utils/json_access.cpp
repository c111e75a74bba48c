#include "utils/json_access.h"

namespace redfish {

void ParseJson(rapidjson::Document& document, const std::string& text) {
  // Iterative parsing accepts exactly what the default parser does.
  document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
}

const rapidjson::Value* JsonMember(const rapidjson::Value& value, const char* name) {
  // FindMember takes the first member of a name, as Redfish readers must.
  if (!value.IsObject()) return nullptr;
  auto it = value.FindMember(name);
  return it == value.MemberEnd() ? nullptr : &it->value;
}

bool JsonString(const rapidjson::Value& value, const char* name, std::string& out) {
  const rapidjson::Value* member = JsonMember(value, name);
  if (member == nullptr || !member->IsString()) return false;
  out.assign(member->GetString(), member->GetStringLength());
  return true;
}

std::string JsonText(const rapidjson::Value& value, const char* name, size_t limit) {
  std::string text;
  JsonString(value, name, text);
  if (text.size() > limit) text.resize(limit);
  return text;
}

}  // namespace redfish
