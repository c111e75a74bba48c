#include "toolkit/systems.h"

#include <rapidjson/document.h>

namespace toolkit {

namespace {

std::string Text(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsString()) return "";
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

}  // namespace

bool ParseSystems(std::string_view json, std::vector<System>& systems) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto list = doc.FindMember("Systems");
  if (list == doc.MemberEnd() || !list->value.IsArray()) return false;
  std::vector<System> parsed;
  for (const auto& s : list->value.GetArray()) {
    if (!s.IsObject()) return false;
    System system{Text(s, "Id"), Text(s, "PowerState"), ""};
    auto status = s.FindMember("Status");
    if (status != s.MemberEnd() && status->value.IsObject())
      system.health = Text(status->value, "Health");
    parsed.push_back(std::move(system));
  }
  systems = std::move(parsed);
  return true;
}

}  // namespace toolkit
