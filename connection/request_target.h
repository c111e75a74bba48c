#pragma once

#include <cstddef>
#include <string_view>

namespace redfish {

// The longest request target sent. The proxy ends its whole HTTP/2
// connection, every caller's requests on it, for a header field above 8,192
// octets (nginx's default large_client_header_buffers size, which it applies
// to each field as received); HPACK never makes a field longer than its
// text, so a target this long always passes, with room to spare.
constexpr size_t kMaxRequestTargetBytes = 8000;

// Why a request target may not be sent to the proxy, or null when it may.
// Targets are built from ids the BMC chose, and the proxy normalises a path
// before routing it: only an origin-form path under "/bmc/" with no control
// bytes, no fragment, no dot segments and no encoded dot, slash or control
// byte is certain to reach the BMC route and nothing else.
const char* UnsafeRequestTarget(std::string_view target) noexcept;

// The first half of that: why the proxy would not take the target to the
// BMC route (not under "/bmc/", or too long), or null.
const char* ProxyProblem(std::string_view target) noexcept;

}  // namespace redfish
