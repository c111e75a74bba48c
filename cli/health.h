#pragma once

#include <string>

#include "toolkit/health.h"

// What `redfishctl health` prints: the rollup, then the parts that caused it
// (worst first), then a line of counts and ages; with all, every system,
// chassis, part and firmware version as tables. Every BMC text is made
// Printable. now: Unix seconds, for the ages.
std::string HealthText(const toolkit::Health& health, bool all, double now);
