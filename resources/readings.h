#pragma once

// What one BMC document says about sensor readings, whichever model it
// belongs to: a Sensor (alone or in an expanded Sensors collection), the
// excerpts of ThermalMetrics, EnvironmentMetrics, a Fan and a power supply's
// Metrics, and the arrays of the deprecated Thermal and Power resources.
// Pure: a parsed document in, offers out; what is left out is said in notes,
// which the caller logs.

#include <rapidjson/document.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace redfish {

enum Threshold { UpperCaution, UpperCritical, UpperFatal, LowerCaution, LowerCritical, LowerFatal };
constexpr int kThresholdCount = 6;
// The Redfish names, in Threshold order.
extern const char* const kThresholdNames[kThresholdCount];

struct SensorReading {
  std::string id;
  std::string name;
  std::optional<double> reading;  // absent when the BMC gave no number
  std::string units;              // the BMC's, or those the property's name implies
  std::string type;               // Redfish ReadingType
  std::string physicalContext;
  std::string health;  // Status.Health, "" when not given
  std::string state;   // Status.State
  std::array<std::optional<double>, kThresholdCount> thresholds;
  // Where the reading lives on the BMC: the sensor's URI, an excerpt's
  // DataSourceUri, or the document and JSON pointer it was found at. One
  // physical reading has one source, which is how duplicates are told.
  std::string source;
};

enum class SourceKind : uint8_t {
  Sensor,              // a Sensor resource (alone, or a member of an expanded collection)
  ThermalMetrics,      // ThermalSubsystem/ThermalMetrics
  Fan,                 // a member of ThermalSubsystem/Fans
  PowerSupplyMetrics,  // PowerSubsystem/PowerSupplies/<id>/Metrics
  EnvironmentMetrics,
  Thermal,  // deprecated
  Power,    // deprecated
};

// Which deprecated readings a newer resource of the chassis replaces.
enum class Replaced : uint8_t { None, Temperatures, Fans, PowerSupplies, PowerControl };

// One reading as a document offers it, before the merge knows whether the
// BMC shows it elsewhere too.
struct Offer {
  SensorReading reading;
  bool linked = false;  // reading.source is the BMC's DataSourceUri
  // Names under which a Sensor of the same chassis is this very sensor:
  // an old array entry's Name, a Fan's Id and Name ("" for none).
  std::array<std::string, 2> alias;
  bool chassisPower = false;   // the chassis' power figure (PowerWatts, PowerControl)
  bool chassisEnergy = false;  // the chassis' energy counter (EnergyJoules, EnergykWh)
  Replaced replaced = Replaced::None;
};

// Bounded record of what a read left out, for one log line each.
struct ReadNotes {
  static constexpr size_t kKept = 32;
  std::vector<std::string> kept;
  size_t more = 0;
  void Add(std::string note);
};

// The offers of one document found at path (its URI, without a query). A
// document that is not an object offers nothing and is noted.
void OffersOf(SourceKind kind, const rapidjson::Value& document, const std::string& path,
              std::vector<Offer>& offers, ReadNotes& notes);

// "/redfish/v1/Chassis/1/" -> "/redfish/v1/Chassis/1": the form sources are
// compared in.
std::string TrimmedUri(std::string uri);
// The last segment of a URI.
std::string LastSegment(const std::string& uri);

}  // namespace redfish
