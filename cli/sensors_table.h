#pragma once

#include <array>
#include <string>
#include <vector>

// The readings document of Redfish_GetSensorReadings, parsed for display.
struct Readings {
  size_t chassis = 0;      // chassis with readings
  size_t fromSensors = 0;  // of them, read from a Sensors collection (the rest: Thermal and Power)
  // chassis id, name, reading ("-" for none), units, health ("-" for none); printable
  std::vector<std::array<std::string, 5>> rows;
};

// False when the text is not such a document.
bool ParseReadings(const std::string& json, Readings& readings);

// An aligned table (name, reading, units, health), one sensor per line, with
// the chassis first when the readings come from more than one.
std::string ReadingsTable(const Readings& readings);
