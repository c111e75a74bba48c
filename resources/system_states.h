#pragma once

// Every computer system's power state and status, whatever the BMC's maker
// (Redfish_GetSystems).

#include <string>

namespace redfish {

class ReadContext;

int ReadSystemStates(ReadContext& read, std::string& document);

}  // namespace redfish
