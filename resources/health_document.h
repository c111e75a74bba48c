#pragma once

// The health document Redfish_GetHealth returns, and takes back as previous
// so that a later call can tell what changed without asking the BMC. Pure:
// records in, text out, and back.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "resources/health_parts.h"
#include "resources/json_output.h"

namespace redfish {

struct SystemHealth {
  std::string id;
  std::string odataId;
  std::string powerState;
  std::string state;
  std::string health;
  std::string healthRollup;
  std::string biosVersion;
  uint64_t digest =
      0;  // HealthDigest of the system as read: its summaries and makers' aggregates too
};

struct FirmwareEntry {
  std::string kind;  // "BMC", "BIOS" or "Inventory"
  std::string id;
  std::string name;
  std::string version;
  std::string odataId;
};

// A sensor of the readings document whose health is not OK.
struct SensorHealth {
  std::string chassis;
  std::string id;
  std::string name;
  std::string health;
};

struct HealthReport {
  std::vector<SystemHealth> systems;
  std::vector<Part> chassis;
  std::vector<Part> parts;  // the managers, then the components
  std::vector<FirmwareEntry> firmware;
  std::vector<SensorHealth> sensors;
  // When each part was read (Unix seconds), and the digests a later call
  // compares with what it reads.
  int64_t readAt = 0;
  int64_t partsAt = 0;
  int64_t firmwareAt = 0;
  std::string watched;          // the systems' and managers' health
  std::string firmwareWatched;  // the managers' firmware and the systems' BIOS versions
  std::string sensorsWatched;   // every sensor's health; "" when no readings were given
  size_t requests = 0;
  size_t partsLeftOut = 0;        // over the members a read follows
  std::vector<std::string> gaps;  // component reads the BMC failed: "<path>: <result>"
};

struct Cause {
  PartKind kind = PartKind::System;
  std::string id;
  std::string name;
  std::string parent;
  std::string odataId;
  HealthLevel level = HealthLevel::Unknown;
};

// At most this many causes are named; the rest are counted.
constexpr size_t kMaxCauses = 64;
// A document taken back holds at most this many entries of a list.
constexpr size_t kMaxEntries = 8192;

// The worst health of all: the systems', chassis' and managers' own and
// rolled-up health, every present part's and every sensor's. causes: the
// parts and sensors not OK, worst first; a system, chassis or manager only
// when its health is worse than every part's and sensor's (nothing read
// explains it).
HealthLevel Rollup(const HealthReport& report, std::vector<Cause>& causes);

std::string HealthDocument(const HealthReport& report);

// A system's members in the health document, and in the systems document
// (there with whole texts).
void WriteSystem(JsonWriter& w, const SystemHealth& system, size_t limit);

// A document of HealthDocument back into its report: false (report left
// empty) when text is not one. Lists are cut at kMaxEntries, texts at kMaxText.
bool ParseHealthDocument(const std::string& text, HealthReport& report);

// The sensors of a readings document (Redfish_GetSensorReadings) that are not
// OK, and a digest of every sensor's health: false when text is not one.
bool SensorHealthOf(const std::string& readings, std::vector<SensorHealth>& notOk,
                    std::string& digest);

std::string Hex(uint64_t value);

}  // namespace redfish
