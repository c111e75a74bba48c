#include "resources/system_states.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "platform/tessel/http.h"
#include "resources/documents.h"
#include "resources/health_parts.h"
#include "resources/inventory.h"
#include "resources/read_context.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"
#include "utils/utf8.h"

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

void WriteText(rapidjson::Writer<rapidjson::StringBuffer>& w, const char* key,
               const std::string& value) {
  const std::string valid = ValidUtf8(value);
  w.Key(key);
  w.String(valid.c_str(), static_cast<rapidjson::SizeType>(valid.size()));
}

std::string Text(const rapidjson::Value& object, const char* name) {
  std::string value;
  JsonString(object, name, value);
  return value;
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
    s.id = Text(d, "Id");
    s.odataId = id;
    s.powerState = Text(d, "PowerState");
    s.biosVersion = Text(d, "BiosVersion");
    if (const rapidjson::Value* status = JsonMember(d, "Status")) {
      s.state = Text(*status, "State");
      s.health = Text(*status, "Health");
      s.healthRollup = Text(*status, "HealthRollup");
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
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  w.Key("Systems");
  w.StartArray();
  for (const SystemHealth& s : systems) {
    w.StartObject();
    WriteText(w, "Id", s.id);
    WriteText(w, "@odata.id", s.odataId);
    WriteText(w, "PowerState", s.powerState);
    w.Key("Status");
    w.StartObject();
    WriteText(w, "State", s.state);
    WriteText(w, "Health", s.health);
    WriteText(w, "HealthRollup", s.healthRollup);
    w.EndObject();
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  document.assign(buffer.GetString(), buffer.GetSize());
  return RedfishStatusOk;
}

}  // namespace redfish
