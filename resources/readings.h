#pragma once

// Sensor readings in one shape, whichever resource the BMC reports them in:
// the members of an expanded Sensors collection, or the arrays of a chassis'
// Thermal and Power resources (BMCs without a Sensors collection). Pure: a
// parsed document in, records out.

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <vector>

namespace redfish {

struct SensorReading {
  std::string id;
  std::string name;
  std::optional<double> reading;  // absent when the BMC gave no number
  std::string units;              // as the BMC wrote them ("Cel", "C", "RPM", ...)
  std::string type;               // Redfish ReadingType ("Temperature", "Power", ...)
  std::string health;             // Status.Health, "" when not given
};

struct ChassisReadings {
  std::string id;  // the chassis' Id, else the last segment of its @odata.id
  std::string odataId;
  std::string source;  // "Sensors" or "ThermalPower"
  std::vector<SensorReading> sensors;
};

// The members of an expanded Sensors collection: 20004 when the document is
// not an object with a "Members" array. Members that are not objects, or
// only links, and sensors whose Status.State is "Absent", are left out.
int ReadingsOfSensors(const rapidjson::Value& collection, std::vector<SensorReading>& out);

// The temperatures and fans of a Thermal resource and the voltages, power
// controls and supplies of a Power resource. Either document may be anything:
// what is not of the Redfish shape is skipped, as are absent devices.
void ReadingsOfThermal(const rapidjson::Value& thermal, std::vector<SensorReading>& out);
void ReadingsOfPower(const rapidjson::Value& power, std::vector<SensorReading>& out);

// The expanded Thermal and Power members of a chassis read with
// "$expand=.($levels=1)": true when either is there inline (not just linked).
bool HasInlineThermalOrPower(const rapidjson::Value& chassis);
// The chassis' links to its Thermal and Power resources ("" when absent).
void ThermalAndPowerLinks(const rapidjson::Value& chassis, std::string& thermal,
                          std::string& power);

// The document Redfish_GetSensorReadings returns.
std::string ReadingsDocument(const std::vector<ChassisReadings>& chassis);

}  // namespace redfish
