#pragma once

#include "connection/bmc_redfish_connection.h"

namespace redfish {

// The logger shared by every connection; null until Redfish_Initialize succeeds.
Tessel::Service::Logger* LibraryLogger();

// Finds or creates the connection of a host (null = "localhost"). The pointer
// stays owned by the registry. Returns 0 or the creation's failure code.
int GetOrCreateConnection(const char* user, const char* password, const char* host,
                          BmcRedfishConnection** connection);

}  // namespace redfish
