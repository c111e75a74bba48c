#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The readings document of Redfish_GetSensorReadings, as the tools read it.
namespace toolkit {

// One sensor, its texts as the BMC gave them (not yet fit for printing).
struct Sensor {
  std::string chassis;  // the chassis' Id
  std::string id;
  std::string name;
  std::string units;   // as the BMC wrote them
  std::string type;    // Redfish ReadingType, "" when not given
  std::string health;  // "OK", "Warning", "Critical" or ""
  std::optional<double> reading;
};

struct Readings {
  size_t chassis = 0;      // chassis with readings
  size_t fromSensors = 0;  // of them, read from a Sensors collection (the rest: Thermal and Power)
  std::vector<Sensor> sensors;  // in the document's order
};

// False when json is not such a document: an object whose "Chassis" is an
// array of objects, each with a "Sensors" array of objects. Within that, a
// text member that is not a string reads as "", a reading that is not a
// number as none.
bool ParseReadings(std::string_view json, Readings& readings);

}  // namespace toolkit
