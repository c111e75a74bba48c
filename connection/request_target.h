#pragma once

#include <string_view>

namespace redfish {

// Why a request target may not be sent to the proxy, or null when it may.
// Targets are built from ids the BMC chose, and the proxy normalises a path
// before routing it: only an origin-form path under "/bmc/" with no control
// bytes, no fragment, no dot segments and no encoded dot, slash or control
// byte is certain to reach the BMC route and nothing else.
const char* UnsafeRequestTarget(std::string_view target) noexcept;

// The first half of that: why the target is not under "/bmc/", or null.
const char* RouteProblem(std::string_view target) noexcept;

}  // namespace redfish
