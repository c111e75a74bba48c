#pragma once

// Every computer system's power state and status, whatever the BMC's maker
// (Redfish_GetSystems).

#include <chrono>
#include <string>
#include <vector>

#include "resources/health_document.h"

namespace redfish {

class ReadContext;

int ReadSystemStates(ReadContext& read, std::string& document);

// Every system's power state and health as one request each reads it (the
// whole Status, the summaries and the maker's aggregate under Oem, the BIOS
// version). share: kept for the health read that follows.
int ReadSystemHealth(ReadContext& read, std::vector<SystemHealth>& systems, bool share);

// What a shared read less than maxAge ago saw, once; else a read of its own.
int RecentSystemHealth(ReadContext& read, std::chrono::steady_clock::duration maxAge,
                       std::vector<SystemHealth>& systems);

}  // namespace redfish
