#pragma once

// The MAC guard: the BMC's interfaces searched for the MAC a caller names, and
// a power command sent only when the BMC has it.

#include <chrono>
#include <string>

#include "bmcredfish.h"

namespace redfish {

class Inventory;

// With mac, searches every manager's interfaces for exactly that text; without
// (null), reads the last interface of the first manager. text receives the MAC
// found. 40001 when the managers run out without a match.
int FindBmcMac(Inventory& inventory, const char* mac, std::chrono::milliseconds timeout,
               std::string& text);

// Sends command to the first system when the BMC has an interface with exactly
// the MAC mac (non-null): 40002 when the search ends without one, otherwise
// the command's result. Never sends anything when the MAC is not proven.
int GuardedPowerOperation(Inventory& inventory, const char* mac, REDFISHCMD command,
                          std::chrono::milliseconds timeout);

}  // namespace redfish
