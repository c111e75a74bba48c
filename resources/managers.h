#pragma once

// The BMC's managers and their Ethernet interfaces, whose MAC addresses the
// power guard compares.

#include <chrono>
#include <cstdint>
#include <string>

namespace redfish {

class Inventory;

int NicCount(Inventory& inventory, uint8_t managerIndex, uint8_t& nicCount,
             std::chrono::milliseconds timeout);

int ReadMac(Inventory& inventory, std::string& mac, std::chrono::milliseconds timeout,
            uint8_t managerIndex, uint8_t nicIndex);

}  // namespace redfish
