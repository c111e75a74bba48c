#pragma once

// Any Redfish resource by its path, for callers that look beyond what the
// library keeps (a health check reading the service root, a system's maker).

#include <chrono>
#include <string>

namespace redfish {

class Inventory;

// GETs path ("/redfish/v1..." with an optional query) under the base URL.
// 10002 for a path outside "/redfish/v1" (nothing sent), the GET's result,
// 20002 for a body that is not JSON, 20004 for JSON that is not an object.
int ReadResource(Inventory& inventory, const std::string& path, std::chrono::milliseconds timeout,
                 std::string& json);

}  // namespace redfish
