#pragma once

#include <string>
#include <vector>

#include "platform/tessel/http.h"

namespace Tessel::Http {

// The numeric addresses to connect to for a spec, as raw sockaddr bytes,
// IPv4 first; 0, or getaddrinfo's error when none resolved.
int ResolveAddresses(const ConnectionSpec& spec, std::vector<std::string>& out);

}  // namespace Tessel::Http
