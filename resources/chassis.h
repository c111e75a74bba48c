#pragma once

// The BMC's chassis and their sensors: the first chassis' Sensors collection
// as the BMC sent it, and every chassis' readings in one shape.

#include <chrono>
#include <cstdint>
#include <string>

namespace redfish {

class Inventory;

int ReadSensorInfo(Inventory& inventory, std::string& sensorJson, std::chrono::milliseconds timeout,
                   uint8_t chassisIndex);

// The document Redfish_GetSensorReadings returns: one request per chassis
// once the readings' sources are known.
int ReadSensorReadings(Inventory& inventory, std::chrono::milliseconds timeout,
                       std::string& document);

}  // namespace redfish
