#pragma once

// The BMC's chassis and the first chassis' Sensors collection as the BMC sent
// it (Redfish_GetSensorsInfo).

#include <chrono>
#include <cstdint>
#include <string>

namespace redfish {

class Inventory;

int ReadSensorInfo(Inventory& inventory, std::string& sensorJson, std::chrono::milliseconds timeout,
                   uint8_t chassisIndex);

}  // namespace redfish
