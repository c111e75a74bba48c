#include "resources/health.h"

#include <chrono>

#include "resources/health_document.h"
#include "resources/inventory.h"
#include "resources/part_walk.h"
#include "resources/read_context.h"
#include "resources/system_states.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {

// The component walk: when what the BMC rolls up or a sensor's health
// changed, else at most this often, for what no rollup shows (a BMC that
// leaves HealthRollup empty, a second failure under one already reported).
constexpr int64_t kPartsEvery = 600;
// The firmware inventory: when a BMC or BIOS version changed, else this often.
constexpr int64_t kFirmwareEvery = 3600;
// A systems read this recent (Redfish_GetSystems just before) serves.
constexpr auto kSystemsShared = std::chrono::seconds(5);

int64_t Now() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Due when never done, older than every, or dated in the future (a clock set back).
bool Due(int64_t at, int64_t now, int64_t every) {
  return at <= 0 || now < at || now - at >= every;
}

std::string Digest(const std::vector<SystemHealth>& systems, const std::vector<Part>& managers) {
  uint64_t hash = Fnv1a("");
  for (const SystemHealth& s : systems) hash = Fnv1a(s.odataId + '\0' + Hex(s.digest) + '\n', hash);
  for (const Part& m : managers) {
    hash = Fnv1a(m.odataId + '\0' + m.state + '\0' + m.health + '\0' + m.healthRollup + '\n', hash);
  }
  return Hex(hash);
}

std::string FirmwareDigest(const std::vector<SystemHealth>& systems,
                           const std::vector<FirmwareEntry>& bmc) {
  uint64_t hash = Fnv1a("");
  for (const SystemHealth& s : systems) hash = Fnv1a(s.odataId + '\0' + s.biosVersion + '\n', hash);
  for (const FirmwareEntry& f : bmc) hash = Fnv1a(f.odataId + '\0' + f.version + '\n', hash);
  return Hex(hash);
}

// The managers' paths: this connection's, else the previous document's.
std::vector<std::string> KnownManagers(Inventory& inventory, const HealthReport& previous) {
  {
    std::lock_guard<std::mutex> lock(inventory.memory.mutex);
    if (!inventory.memory.managers.empty()) return inventory.memory.managers;
  }
  // A BMC has a manager or two; a previous listing more is no guide.
  constexpr size_t kMaxKnown = 16;
  std::vector<std::string> known;
  for (const Part& p : previous.parts) {
    if (p.kind == PartKind::Manager && !p.odataId.empty()) known.push_back(RequestPath(p.odataId));
  }
  if (known.size() > kMaxKnown) known.clear();
  return known;
}

// What the read found odd, once per read rather than once per part.
void LogOddities(Inventory& inventory, const PartWalk& walk, bool walked) {
  Tessel::Service::Logger* log = inventory.Logger();
  const PartNotes& n = walk.Notes();
  if (n.withoutId != 0) {
    TESSEL_LOG(log, 3, "health: %1 parts without an Id, named after their link or position",
               n.withoutId);
  }
  if (n.unknownHealth != 0) {
    TESSEL_LOG(log, 3, "health: %1 Health values Redfish does not define, read as Warning",
               n.unknownHealth);
  }
  if (n.wrongType != 0) {
    TESSEL_LOG(log, 3, "health: %1 Status members of the wrong type, read as not given",
               n.wrongType);
  }
  if (walk.Loops() != 0) {
    TESSEL_LOG(log, 3,
               "health: %1 links to resources already read this walk (a loop), not followed",
               walk.Loops());
  }
  if (walk.LeftOut() != 0) {
    TESSEL_LOG(
        log, 3,
        "health: %1 members left out: a walk sends at most %2 requests and follows %3 members",
        walk.LeftOut(), PartWalk::kMaxReads, ReadContext::kMaxMembers);
  }
  if (walked && walk.GapCount() != 0) {
    TESSEL_LOG(log, 3, "health: %1 component reads failed, first %2", walk.GapCount(),
               walk.Gaps().front());
  }
}

}  // namespace

int ReadHealth(ReadContext& read, const char* previous, const char* readings,
               std::string& document) {
  Inventory& inventory = read.Of();
  HealthReport before;
  if (previous != nullptr && !ParseHealthDocument(previous, before)) {
    TESSEL_LOG(inventory.Logger(), 3,
               "health: the previous document is not one this library wrote; reading everything");
  }
  HealthReport now;
  now.readAt = Now();
  now.sensorsWatched = before.sensorsWatched;
  if (readings != nullptr && !SensorHealthOf(readings, now.sensors, now.sensorsWatched)) {
    TESSEL_LOG(inventory.Logger(), 3,
               "health: the readings document is not one; sensors left out of the rollup");
  }

  int result = RecentSystemHealth(read, kSystemsShared, now.systems);
  if (result != RedfishStatusOk) return result;
  PartWalk walk(read);
  std::vector<Part> managers;
  std::vector<FirmwareEntry> bmcFirmware;
  result = walk.Managers(KnownManagers(inventory, before), managers, bmcFirmware);
  if (result != RedfishStatusOk) return result;
  {
    std::lock_guard<std::mutex> lock(inventory.memory.mutex);
    inventory.memory.managers.clear();
    for (const Part& m : managers) {
      if (!m.odataId.empty()) inventory.memory.managers.push_back(RequestPath(m.odataId));
    }
  }
  now.watched = Digest(now.systems, managers);
  now.firmwareWatched = FirmwareDigest(now.systems, bmcFirmware);

  const bool walkDue = Due(before.partsAt, now.readAt, kPartsEvery) ||
                       before.watched != now.watched || before.sensorsWatched != now.sensorsWatched;
  std::vector<Part> components;
  if (walkDue) {
    result = walk.Components(now.chassis, components);
    if (result != RedfishStatusOk) return result;
    now.partsAt = now.readAt;
    now.partsLeftOut = walk.LeftOut();
    now.gaps = walk.Gaps();
  } else {
    now.chassis = before.chassis;
    for (Part& p : before.parts) {
      if (p.kind != PartKind::Manager) components.push_back(std::move(p));
    }
    now.partsAt = before.partsAt;
    now.partsLeftOut = before.partsLeftOut;
    now.gaps = before.gaps;
  }
  now.parts = std::move(managers);
  now.parts.insert(now.parts.end(), components.begin(), components.end());

  // The BMC's and BIOS versions come with the reads above; the inventory is
  // read only when one of them changed, or hourly.
  now.firmware = bmcFirmware;
  for (const SystemHealth& s : now.systems) {
    if (!s.biosVersion.empty())
      now.firmware.push_back({"BIOS", s.id, s.id, s.biosVersion, s.odataId});
  }
  if (Due(before.firmwareAt, now.readAt, kFirmwareEvery) ||
      before.firmwareWatched != now.firmwareWatched) {
    result = walk.FirmwareInventory(now.firmware);
    if (result != RedfishStatusOk) return result;
    now.firmwareAt = now.readAt;
  } else {
    for (FirmwareEntry& f : before.firmware) {
      if (f.kind == "Inventory") now.firmware.push_back(std::move(f));
    }
    now.firmwareAt = before.firmwareAt;
  }
  LogOddities(inventory, walk, walkDue);
  now.requests = read.RequestsMade();
  document = HealthDocument(now);
  return RedfishStatusOk;
}

}  // namespace redfish
