#pragma once

#include <string>

// For a BMC without a Sensors collection: the first chassis' Thermal and Power
// readings, read through the local proxy, as a sensor collection document
// ({"Members":[{"Name","Reading","ReadingUnits","Status":{"Health"}}]}).
// False (with why) when they cannot be read.
bool ReadThermalAndPower(const std::string& user, const std::string& password, long timeoutMs,
                         std::string& document, std::string& why);
