#pragma once

// The health document as series. Health is a value (0 OK, 1 Warning,
// 2 Critical, NaN when the BMC gives none), never a label, so that a part
// failing changes a value and not the set of series: one series per system,
// chassis and present part from the first read on. A kind's series are capped
// (a BMC listing thousands of parts cannot flood Prometheus), and a metric
// says how many the cap left out.

#include <cstddef>
#include <string>

#include "toolkit/health.h"

constexpr size_t kComponentsPerKind = 256;

void RenderHealth(std::string& out, const toolkit::Health& health, double now);
