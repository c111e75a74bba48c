#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The readings document of Redfish_GetSensorReadings, as the tools read it,
// and the one rule that says what each reading measures.
namespace toolkit {

// The Redfish threshold names, in the document's order.
constexpr int kThresholdCount = 6;
extern const char* const kThresholdNames[kThresholdCount];

// One sensor, its texts as the BMC gave them (not yet fit for printing).
struct Sensor {
  std::string chassis;  // the chassis' Id
  std::string id;
  std::string name;
  std::string units;  // as the BMC wrote them
  std::string type;   // Redfish ReadingType, "" when not given
  std::string physicalContext;
  std::string health;  // "OK", "Warning", "Critical" or ""
  std::string source;  // DataSourceUri: where the BMC holds the reading
  std::optional<double> reading;
  std::array<std::optional<double>, kThresholdCount> thresholds;  // UpperCaution ... LowerFatal
};

struct Chassis {
  std::string id;
  std::vector<std::string> sources;  // "Sensors", "Thermal", "Power", ...
  bool hasPower = false;             // a power figure is named (its number may be missing)
  std::optional<double> powerWatts;
  bool hasEnergy = false;
  std::optional<double> energyJoules;
};

struct Readings {
  std::vector<Chassis> chassis;  // those with readings
  size_t fromSensors = 0;        // of them, those with a Sensors collection
  std::vector<Sensor> sensors;   // in the document's order
};

// False when json is not such a document: an object whose "Chassis" is an
// array of objects, each with a "Sensors" array of objects. Within that, a
// text member that is not a string reads as "", a number that is not a
// number as none.
bool ParseReadings(std::string_view json, Readings& readings);

// What a reading measures, told by its units (a firmware's ReadingType is
// not trusted: some call a fan "AirFlow" and a power "Current"), and the
// factor to the base unit it is shown in.
enum class Quantity {
  Temperature,  // degrees Celsius
  Power,        // watts
  Voltage,      // volts
  Current,      // amperes
  FanSpeed,     // revolutions per minute
  FanDuty,      // ratio 0..1 of the fan's maximum
  Humidity,     // ratio 0..1
  Ratio,        // any other percentage, as a ratio 0..1
  Frequency,    // hertz
  Energy,       // joules
  Pressure,     // pascals
  Airflow,      // cubic metres per second
  Other,        // units without a mapping: shown as the BMC gave it
};
struct Meaning {
  Quantity quantity;
  double scale;  // base-unit value = reading * scale
};
Meaning MeaningOf(const Sensor& sensor);

}  // namespace toolkit
