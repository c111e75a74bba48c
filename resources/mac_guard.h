#pragma once

// The MAC search: the BMC's interfaces searched for the MAC a caller names,
// which the power operation checks before it sends a command.

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

}  // namespace redfish
