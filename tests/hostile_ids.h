#pragma once

// Ids a hostile BMC may send as a member's @odata.id or a reset target. Each
// could take a request out of the proxy's /bmc/ route once normalised, split
// the request line, or name another resource; none may be sent.
#include <string>
#include <vector>

namespace hostile {

inline const std::vector<std::string> kIds = [] {
  std::vector<std::string> ids;
  for (const char* id :
       {"/redfish/v1/Systems/System 1", "/redfish/v1/Systems/1\r\nX-Injected: 1",
        "/redfish/v1/Systems/1\t2", "/redfish/v1/Systems/1\x7f",
        "/redfish/v1/Systems/../../__portico/generation", "/redfish/v1/Systems/./1",
        "/redfish/v1/Systems/1/..", "/redfish/v1/%2e%2e/%2e%2e/portico",
        "/redfish/v1/Systems/%2E%2E", "/redfish/v1/Systems%2f1", "@evil/redfish"})
    ids.emplace_back(id);
  ids.emplace_back("/redfish/v1/Systems/1\0", 22);
  return ids;
}();

}  // namespace hostile
