#include "connection/request_target.h"

#include "platform/tessel/http.h"

namespace redfish {

static_assert(kMaxRequestTargetBytes == 8000, "the reason below names the bound");

const char* ProxyProblem(std::string_view target) noexcept {
  constexpr std::string_view kRoutePrefix = "/bmc/";
  if (target.substr(0, kRoutePrefix.size()) != kRoutePrefix) return "not under /bmc/";
  if (target.size() > kMaxRequestTargetBytes) return "longer than 8000 bytes";
  return nullptr;
}

const char* UnsafeRequestTarget(std::string_view target) noexcept {
  const char* problem = ProxyProblem(target);
  return problem != nullptr ? problem : Tessel::Http::OriginFormProblem(target);
}

}  // namespace redfish
