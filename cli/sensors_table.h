#pragma once

#include <string>

// The sensors document as an aligned table (name, reading, units, health), one
// sensor per line. False when the text is not a sensor collection.
bool SensorsTable(const std::string& json, std::string& table);
