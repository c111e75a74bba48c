#pragma once

// What a Redfish resource says of its own health and where its parts are.
// Pure: a parsed document in, records out; no I/O, no logging (the caller
// counts the oddities in PartNotes and says so once per read).

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <vector>

namespace redfish {

enum class PartKind {
  System,
  Chassis,
  Manager,
  PowerSupply,
  Fan,
  Memory,
  Processor,
  StorageController,
  Drive,
  Volume,
  NetworkAdapter,
  Sensor,
};
constexpr int kPartKinds = 12;

// The kind as the health document writes it ("PowerSupply", ...).
const char* KindName(PartKind kind);
bool KindFromName(const std::string& name, PartKind& kind);

// Ordered: a worse health is a greater level. Unknown is "not given".
enum class HealthLevel { Unknown = 0, Ok = 1, Warning = 2, Critical = 3 };

// "" is Unknown; a text Redfish does not define counts as Warning (something
// is not OK, and the BMC could not say what), with recognised false.
HealthLevel LevelOf(const std::string& health, bool* recognised = nullptr);
const char* LevelText(HealthLevel level);  // "", "OK", "Warning", "Critical"

struct Part {
  PartKind kind = PartKind::System;
  std::string id;
  std::string name;
  std::string parent;  // the Id of the storage, chassis or system that holds it; "" for none
  std::string odataId;
  std::string state;
  std::string health;
  std::string healthRollup;  // systems, chassis and managers only
  bool Absent() const { return state == "Absent"; }
};

// What a read found odd in the parts it read.
struct PartNotes {
  size_t withoutId = 0;      // given an id from their link or position
  size_t unknownHealth = 0;  // a Health text Redfish does not define
  size_t wrongType = 0;      // Status or one of its members not of its type
};

// The longest text of the BMC kept in a part (ids, names, states), so that
// a hostile BMC cannot make the document grow without bound.
constexpr size_t kMaxText = 256;

// A resource's Status and names. position names a part that gives neither an
// Id, a MemberId nor an "@odata.id" ("<parent>#<position>").
Part PartOf(PartKind kind, const rapidjson::Value& resource, const std::string& parent,
            size_t position, PartNotes& notes);

// The entries of an array inside a resource (Power's PowerSupplies,
// Thermal's Fans, Storage's StorageControllers), each as a part.
void PartsOfArray(PartKind kind, const rapidjson::Value& resource, const char* array,
                  const std::string& parent, std::vector<Part>& out, PartNotes& notes);

// A link member's target ("Memory": {"@odata.id": ...}) as a request path:
// without a fragment or a trailing slash; "" when absent or not a link.
std::string LinkOf(const rapidjson::Value& resource, const char* name);
// The targets of an array of links ("Drives": [{"@odata.id": ...}]).
std::vector<std::string> LinksOf(const rapidjson::Value& resource, const char* name);
std::string RequestPath(std::string odataId);

// Every Health and HealthRollup text in a resource, with where it is: a
// change anywhere (a subsystem's summary, a maker's aggregate) changes the
// digest. Bounded work whatever the document's shape.
uint64_t HealthDigest(const rapidjson::Value& resource);

// FNV-1a, for digests the health document keeps between calls.
uint64_t Fnv1a(const std::string& text, uint64_t seed = 14695981039346656037ull);

}  // namespace redfish
