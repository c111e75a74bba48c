#pragma once

#include <memory>

#include "connection/bmc_redfish_connection.h"

namespace redfish {

// The logger shared by every connection; null until Initialize succeeds.
Tessel::Service::Logger* LibraryLogger();

// The library's own entry points. Exported functions and the unload path call
// these, never the exported names: a host that defines a function of the same
// name would otherwise get its own called in their place.
int Initialize();
void CloseConnection(const char* host);
void CleanupAll();

// Finds or creates the connection of a host (null = "localhost") and hands the
// caller its own reference: the connection lives until the last call using it
// returns, even when it is closed meanwhile. Returns 0 or the creation's code.
int GetOrCreateConnection(const char* user, const char* password, const char* host,
                          std::shared_ptr<BmcRedfishConnection>& connection);

}  // namespace redfish
