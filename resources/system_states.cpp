#include "resources/system_states.h"

#include "platform/tessel/http.h"
#include "resources/documents.h"
#include "resources/health_parts.h"
#include "resources/inventory.h"
#include "resources/read_context.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {

constexpr char kSystems[] = "/redfish/v1/Systems";
// What a health read needs of a system comes with its power state: the
// summaries and the maker's aggregate under Oem change when a part fails.
constexpr char kSelect[] =
    "$select=Id,PowerState,Status,ProcessorSummary,MemorySummary,Oem,BiosVersion";

// The systems' ids, read once per connection. A BMC without a Systems
// collection (a chassis manager) has none.
int SystemIds(ReadContext& read, std::vector<std::string>& ids) {
  ReadMemory& memory = read.Of().memory;
  {
    std::lock_guard<std::mutex> lock(memory.mutex);
    if (memory.systemsKnown) {
      ids = memory.systems;
      return RedfishStatusOk;
    }
  }
  Fetched collection;
  int result = read.Get(kSystems, collection);
  if (result == Tessel::Http::ResponseCode::NotFound) {
    result = RedfishStatusOk;
  } else if (result == RedfishStatusOk) {
    if (collection.document.HasParseError()) return RedfishStatusBadJson;
    result = MemberIds(collection.document, ids);
    if (result != RedfishStatusOk) return result;
    if (!read.Follow(ids.size())) {
      NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusUnexpectedJson,
                  ReadContext::Bounded(kSystems));
      return RedfishStatusUnexpectedJson;
    }
  }
  if (result != RedfishStatusOk) return result;
  std::lock_guard<std::mutex> lock(memory.mutex);
  memory.systems = ids;
  memory.systemsKnown = true;
  return RedfishStatusOk;
}

}  // namespace

int ReadSystemHealth(ReadContext& read, std::vector<SystemHealth>& systems, bool share) {
  std::vector<std::string> ids;
  int result = SystemIds(read, ids);
  if (result != RedfishStatusOk) return result;
  std::vector<SystemHealth> seen;
  for (const std::string& id : ids) {
    Fetched system;
    bool selected = false;
    result = read.GetWithQuery(id, QueryOption::Select, kSelect, system, selected);
    if (result != RedfishStatusOk) return result;
    const rapidjson::Document& d = system.document;
    if (d.HasParseError()) return RedfishStatusBadJson;
    if (!d.IsObject()) return RedfishStatusUnexpectedJson;
    SystemHealth s;
    s.id = JsonText(d, "Id");
    s.odataId = id;
    s.powerState = JsonText(d, "PowerState");
    s.biosVersion = JsonText(d, "BiosVersion");
    if (const rapidjson::Value* status = JsonMember(d, "Status")) {
      s.state = JsonText(*status, "State");
      s.health = JsonText(*status, "Health");
      s.healthRollup = JsonText(*status, "HealthRollup");
    }
    s.digest = HealthDigest(d);
    seen.push_back(std::move(s));
  }
  if (share) {
    ReadMemory& memory = read.Of().memory;
    std::lock_guard<std::mutex> lock(memory.mutex);
    memory.systemsSeen = seen;
    memory.systemsSeenAt = std::chrono::steady_clock::now();
    memory.systemsSeenKnown = true;
  }
  systems = std::move(seen);
  return RedfishStatusOk;
}

int RecentSystemHealth(ReadContext& read, std::chrono::steady_clock::duration maxAge,
                       std::vector<SystemHealth>& systems) {
  {
    ReadMemory& memory = read.Of().memory;
    std::lock_guard<std::mutex> lock(memory.mutex);
    const bool recent =
        memory.systemsSeenKnown && std::chrono::steady_clock::now() - memory.systemsSeenAt < maxAge;
    memory.systemsSeenKnown = false;
    if (recent) {
      systems = std::move(memory.systemsSeen);
      return RedfishStatusOk;
    }
  }
  return ReadSystemHealth(read, systems, false);
}

int ReadSystemStates(ReadContext& read, std::string& document) {
  std::vector<SystemHealth> systems;
  const int result = ReadSystemHealth(read, systems, true);
  if (result != RedfishStatusOk) return result;
  document = JsonObjectText([&](JsonWriter& w) {
    WriteObjects(w, "Systems", systems,
                 [&](const SystemHealth& s) { WriteSystem(w, s, kWholeText); });
  });
  return RedfishStatusOk;
}

}  // namespace redfish
