#pragma once

#include <string>

#include "toolkit/readings.h"

// An aligned table (name, reading, units, health), one sensor per line, with
// the chassis first when the readings come from more than one. A sensor
// without a name shows its Id; every BMC text is made Printable.
std::string ReadingsTable(const toolkit::Readings& readings);
