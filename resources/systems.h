#pragma once

// The BMC's computer systems: discovery of each system's maker and reset
// action, its power state, and the reset itself.

#include <chrono>
#include <cstdint>
#include <string>

#include "bmcredfish.h"
#include "utils/redfish_oem.h"

namespace redfish {

class Inventory;
struct RedfishSystemRecord;

// Reads system.manufacturerUri and sets system.oem: 0, 2 (none of the known
// makers), 20004 (not an object) or the GET's result.
int ReadManufacturer(Inventory& inventory, RedfishSystemRecord& system,
                     std::chrono::milliseconds timeout);

// From the body of the system's Actions query: appends the reset target to
// system.resetUri and fills system.powerActions (reading the ActionInfo where
// the vendor keeps the allowable types there).
int ReadPowerActions(Inventory& inventory, const std::string& json, RedfishSystemRecord& system,
                     RedfishOem oem);

int ReadPowerState(Inventory& inventory, std::string& powerState, std::chrono::milliseconds timeout,
                   uint8_t systemIndex);

int SendPowerCommand(Inventory& inventory, REDFISHCMD command, std::chrono::milliseconds timeout,
                     uint8_t systemIndex);

// The advertised commands as a bit mask over REDFISHCMD; nothing is sent
// beyond discovery.
int AllowedCommands(Inventory& inventory, std::chrono::milliseconds timeout, uint8_t systemIndex,
                    unsigned int& commands);

}  // namespace redfish
