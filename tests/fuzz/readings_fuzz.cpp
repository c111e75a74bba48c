// libFuzzer target: the readings merge over any documents a BMC may send.
// Traps when the readings document is not valid UTF-8 JSON, when a reading
// appears twice, or when a chassis figure names no reading shown.
//
// An input is a run of records, each one document: kind (1 byte, taken
// modulo the kinds), chassis (1, modulo 3), newer-model flags of that chassis
// (1), body length (2, little-endian), body.
#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "resources/readings_merge.h"
#include "utils/json_access.h"

namespace {

using namespace redfish;

constexpr SourceKind kKinds[] = {SourceKind::Sensor,
                                 SourceKind::ThermalMetrics,
                                 SourceKind::Fan,
                                 SourceKind::PowerSupplyMetrics,
                                 SourceKind::EnvironmentMetrics,
                                 SourceKind::Thermal,
                                 SourceKind::Power};
constexpr const char* kPaths[] = {"/Sensors/S",
                                  "/ThermalSubsystem/ThermalMetrics",
                                  "/ThermalSubsystem/Fans/F",
                                  "/PowerSubsystem/PowerSupplies/P/Metrics",
                                  "/EnvironmentMetrics",
                                  "/Thermal",
                                  "/Power"};
constexpr size_t kKindCount = sizeof kKinds / sizeof kKinds[0];

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<ChassisOfReadings> chassis;
  for (int c = 0; c < 3; ++c) {
    const std::string id = std::to_string(c);
    chassis.push_back({id, "/redfish/v1/Chassis/" + id, {}});
  }
  std::deque<rapidjson::Document> parsed;
  std::vector<SourceDocument> documents;
  for (size_t at = 0; size - at >= 5;) {
    const size_t kind = data[at] % kKindCount;
    const size_t c = data[at + 1] % chassis.size();
    const uint8_t flags = data[at + 2];
    NewerModels& newer = chassis[c].newer;
    newer.temperatures = newer.temperatures || (flags & 1);
    newer.fans = newer.fans || (flags & 2);
    newer.powerSupplies = newer.powerSupplies || (flags & 4);
    newer.chassisPower = newer.chassisPower || (flags & 8);
    size_t length = data[at + 3] | (data[at + 4] << 8);
    at += 5;
    if (length > size - at) length = size - at;
    parsed.emplace_back();
    ParseJson(parsed.back(), std::string(reinterpret_cast<const char*>(data + at), length));
    at += length;
    const std::string path = chassis[c].odataId + kPaths[kind] + std::to_string(documents.size());
    documents.push_back({kKinds[kind], c, path, &parsed.back()});
  }
  std::vector<ChassisReadings> out;
  std::vector<bool> used;
  ReadNotes notes;
  MergeReadings(chassis, documents, out, used, notes);
  if (used.size() != documents.size()) __builtin_trap();
  std::set<std::string> sources;
  for (const ChassisReadings& c : out) {
    for (const SensorReading& s : c.sensors) {
      if (!sources.insert(s.source).second) __builtin_trap();
    }
  }
  for (const ChassisReadings& c : out) {
    if (!c.powerSource.empty() && sources.count(c.powerSource) == 0) __builtin_trap();
    if (!c.energySource.empty() && sources.count(c.energySource) == 0) __builtin_trap();
  }
  const std::string text = ReadingsDocument(out);
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(text.c_str(), text.size());
  if (document.HasParseError() || !document.IsObject()) __builtin_trap();
  return 0;
}
