#pragma once

// Every chassis' readings, whichever models the BMC serves them in
// (Redfish_GetSensorReadings). The first read walks each chassis' Sensors,
// ThermalSubsystem, PowerSubsystem, EnvironmentMetrics, Thermal and Power and
// keeps which documents gave the readings; later reads GET only those, at
// most four at once, until one of them fails or the plan is an hour old.

#include <string>

namespace redfish {

class ReadContext;

int ReadSensorReadings(ReadContext& read, std::string& document);

}  // namespace redfish
