#pragma once

#include <string>

#include "toolkit/readings.h"

// An aligned table (name, reading, units, health, critical range), one sensor
// per line, with the chassis first when the readings come from more than
// one; then a line per chassis that has a power figure or energy counter. A
// sensor without a name shows its Id; every BMC text is made Printable.
std::string ReadingsTable(const toolkit::Readings& readings);
