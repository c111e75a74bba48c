// A duration as operators type it: a non-negative number with an optional
// unit, s, m, h or d ("90m", "7d", "30").
#pragma once

#include <string>

namespace toolkit {

// The seconds text stands for; unit says whether it named one. False for
// anything else.
bool ParseDuration(const std::string& text, double& seconds, bool& unit);

}  // namespace toolkit
