#include "resources/health_parts.h"

#include <cstring>

#include "utils/json_access.h"

namespace redfish {

namespace {

using Value = rapidjson::Value;

constexpr const char* kKindNames[kPartKinds] = {
    "System", "Chassis", "Manager",        "PowerSupply",
    "Fan",    "Memory",  "Processor",      "StorageController",
    "Drive",  "Volume",  "NetworkAdapter", "Sensor",
};

// A digest looks at this many values, this deep, at most: a document's shape
// cannot make it work without bound. Redfish nests a Health six deep at most
// (Oem/<maker>/AggregateHealthStatus/Fans/Status/Health).
constexpr size_t kDigestNodes = 200000;
constexpr size_t kDigestDepth = 12;

std::string Cut(std::string text) {
  if (text.size() > kMaxText) text.resize(kMaxText);
  return text;
}

// A string member, "" when absent; wrong counts one that is there but not a string.
std::string TextOf(const Value& object, const char* name, size_t& wrong) {
  const Value* value = JsonMember(object, name);
  if (value == nullptr || value->IsNull()) return "";
  if (!value->IsString()) {
    ++wrong;
    return "";
  }
  return Cut(std::string(value->GetString(), value->GetStringLength()));
}

std::string LastSegment(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

void ReadStatus(const Value& resource, Part& part, PartNotes& notes) {
  const Value* status = JsonMember(resource, "Status");
  if (status == nullptr || status->IsNull()) return;
  if (!status->IsObject()) {
    ++notes.wrongType;
    return;
  }
  part.state = TextOf(*status, "State", notes.wrongType);
  part.health = TextOf(*status, "Health", notes.wrongType);
  part.healthRollup = TextOf(*status, "HealthRollup", notes.wrongType);
  for (const std::string* health : {&part.health, &part.healthRollup}) {
    bool recognised = true;
    LevelOf(*health, &recognised);
    if (!recognised) ++notes.unknownHealth;
  }
}

}  // namespace

const char* KindName(PartKind kind) { return kKindNames[static_cast<int>(kind)]; }

bool KindFromName(const std::string& name, PartKind& kind) {
  for (int i = 0; i < kPartKinds; ++i) {
    if (name == kKindNames[i]) {
      kind = static_cast<PartKind>(i);
      return true;
    }
  }
  return false;
}

HealthLevel LevelOf(const std::string& health, bool* recognised) {
  if (recognised != nullptr) *recognised = true;
  if (health.empty()) return HealthLevel::Unknown;
  if (health == "OK") return HealthLevel::Ok;
  if (health == "Warning") return HealthLevel::Warning;
  if (health == "Critical") return HealthLevel::Critical;
  if (recognised != nullptr) *recognised = false;
  return HealthLevel::Warning;
}

const char* LevelText(HealthLevel level) {
  static constexpr const char* kTexts[] = {"", "OK", "Warning", "Critical"};
  return kTexts[static_cast<size_t>(level)];
}

std::string RequestPath(std::string odataId) {
  const size_t fragment = odataId.find('#');
  if (fragment != std::string::npos) odataId.resize(fragment);
  while (odataId.size() > 1 && odataId.back() == '/') odataId.pop_back();
  return odataId;
}

Part PartOf(PartKind kind, const Value& resource, const std::string& parent, size_t position,
            PartNotes& notes) {
  Part part;
  part.kind = kind;
  part.parent = parent;
  part.odataId = TextOf(resource, "@odata.id", notes.wrongType);
  part.id = TextOf(resource, "Id", notes.wrongType);
  if (part.id.empty()) part.id = TextOf(resource, "MemberId", notes.wrongType);
  if (part.id.empty()) {
    ++notes.withoutId;
    const std::string path = RequestPath(part.odataId);
    part.id = path.find('/') != std::string::npos && path.size() > 1
                  ? LastSegment(path)
                  : parent + "#" + std::to_string(position);
  }
  part.name = TextOf(resource, "Name", notes.wrongType);
  if (part.name.empty()) part.name = part.id;
  ReadStatus(resource, part, notes);
  return part;
}

void PartsOfArray(PartKind kind, const Value& resource, const char* array,
                  const std::string& parent, std::vector<Part>& out, PartNotes& notes) {
  const Value* entries = JsonMember(resource, array);
  if (entries == nullptr || !entries->IsArray()) return;
  size_t position = 0;
  for (const Value& entry : entries->GetArray()) {
    const size_t at = position++;
    if (!entry.IsObject()) continue;
    Part part = PartOf(kind, entry, parent, at, notes);
    // An entry's "@odata.id" points into its resource ("...Power#/PowerSupplies/0"):
    // its last segment names no part, so the position does.
    if (JsonMember(entry, "Id") == nullptr && JsonMember(entry, "MemberId") == nullptr) {
      part.id = std::string(array) + "/" + std::to_string(at);
      if (JsonMember(entry, "Name") == nullptr) part.name = part.id;
    }
    out.push_back(std::move(part));
  }
}

std::string LinkOf(const Value& resource, const char* name) {
  const Value* link = JsonMember(resource, name);
  std::string target;
  if (link == nullptr || !JsonString(*link, "@odata.id", target)) return "";
  return RequestPath(std::move(target));
}

std::vector<std::string> LinksOf(const Value& resource, const char* name) {
  std::vector<std::string> out;
  const Value* links = JsonMember(resource, name);
  if (links == nullptr || !links->IsArray()) return out;
  for (const Value& link : links->GetArray()) {
    std::string target;
    if (JsonString(link, "@odata.id", target)) out.push_back(RequestPath(std::move(target)));
  }
  return out;
}

uint64_t Fnv1a(const std::string& text, uint64_t seed) {
  uint64_t hash = seed;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash;
}

uint64_t HealthDigest(const Value& resource) {
  uint64_t digest = Fnv1a("");
  struct Node {
    const Value* value;
    std::string where;
    size_t depth;
  };
  std::vector<Node> stack{{&resource, "", 0}};
  size_t seen = 0;
  while (!stack.empty() && seen < kDigestNodes) {
    Node node = std::move(stack.back());
    stack.pop_back();
    ++seen;
    const Value* value = node.value;
    const std::string& where = node.where;
    const size_t deeper = node.depth + 1;
    if (deeper > kDigestDepth) continue;
    if (value->IsObject()) {
      for (const auto& m : value->GetObject()) {
        const char* name = m.name.GetString();
        if (m.value.IsString() &&
            (std::strcmp(name, "Health") == 0 || std::strcmp(name, "HealthRollup") == 0)) {
          digest = Fnv1a(where + "/" + name + "=" + m.value.GetString() + ";", digest);
        } else if ((m.value.IsObject() || m.value.IsArray()) &&
                   seen + stack.size() < kDigestNodes) {
          stack.push_back({&m.value, where + "/" + name, deeper});
        }
      }
    } else if (value->IsArray()) {
      size_t index = 0;
      for (const Value& v : value->GetArray()) {
        if ((v.IsObject() || v.IsArray()) && seen + stack.size() < kDigestNodes) {
          stack.push_back({&v, where + "/" + std::to_string(index), deeper});
        }
        ++index;
      }
    }
  }
  return digest;
}

}  // namespace redfish
