#include "connection/request_target.h"

#include "platform/tessel/http.h"

namespace redfish {

const char* RouteProblem(std::string_view target) noexcept {
  constexpr std::string_view kRoutePrefix = "/bmc/";
  return target.substr(0, kRoutePrefix.size()) != kRoutePrefix ? "not under /bmc/" : nullptr;
}

const char* UnsafeRequestTarget(std::string_view target) noexcept {
  const char* problem = RouteProblem(target);
  return problem != nullptr ? problem : Tessel::Http::OriginFormProblem(target);
}

}  // namespace redfish
