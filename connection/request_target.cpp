#include "connection/request_target.h"

#include "platform/tessel/http.h"

namespace redfish {

const char* UnsafeRequestTarget(std::string_view target) noexcept {
  constexpr std::string_view kRoutePrefix = "/bmc/";
  if (target.substr(0, kRoutePrefix.size()) != kRoutePrefix) return "not under /bmc/";
  return Tessel::Http::OriginFormProblem(target);
}

}  // namespace redfish
