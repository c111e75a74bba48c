#pragma once

// The sensor readings as series: one metric per quantity in its base unit,
// each threshold a gauge of its own (as node_exporter's hwmon collector names
// them: _max, _crit, _emergency, _min, _lcrit, _lemergency), the health, and
// each chassis' power figure and energy counter.

#include <string>

#include "snapshot.h"

void RenderReadings(std::string& out, const SensorReadings& readings);
