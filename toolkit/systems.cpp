#include "toolkit/systems.h"

#include "toolkit/json_members.h"

namespace toolkit {

bool ParseSystems(std::string_view json, std::vector<System>& systems) {
  rapidjson::Document doc;
  if (!json::ParseObject(json, doc)) return false;
  const json::Value* list = json::Member(doc, "Systems", rapidjson::kArrayType);
  if (list == nullptr) return false;
  std::vector<System> parsed;
  for (const auto& s : list->GetArray()) {
    if (!s.IsObject()) return false;
    System system{json::Text(s, "Id"), json::Text(s, "PowerState"), ""};
    if (const json::Value* status = json::Member(s, "Status", rapidjson::kObjectType))
      system.health = json::Text(*status, "Health");
    parsed.push_back(std::move(system));
  }
  systems = std::move(parsed);
  return true;
}

}  // namespace toolkit
