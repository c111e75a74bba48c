#include "toolkit/failure_text.h"

#include "toolkit/bmc_text.h"

namespace toolkit {

RedfishFailure LastFailure(int code) {
  RedfishFailure failure{};
  failure.size = sizeof failure;
  if (Redfish_GetLastFailure(&failure) != 0 || failure.result != code) {
    failure = RedfishFailure{};
    failure.size = sizeof failure;
    failure.result = code;
  }
  return failure;
}

const char* LinkLabel(RedfishLink link) {
  static const char* const kLabels[] = BMCREDFISH_LINK_LABELS;
  const auto index = static_cast<size_t>(link);
  return index < sizeof kLabels / sizeof kLabels[0] ? kLabels[index] : "unknown";
}

std::string FailureCause(const RedfishFailure& f) {
  const std::string exchange = f.method[0] != '\0' ? std::string(f.method) + " " + f.uri : "";
  if (f.httpStatus != 0)
    return exchange + " answered " + std::to_string(f.httpStatus) +
           (f.detail[0] != '\0' ? ": " + std::string(f.detail) : "");
  // A transport failure is the exchange's own; other causes only follow it.
  const bool transport = f.link == REDFISH_LINK_PROXY || f.link == REDFISH_LINK_BMC ||
                         f.link == REDFISH_LINK_CONFIG_ENDPOINT;
  if (exchange.empty()) return f.detail;
  if (transport) return exchange + ": " + f.detail;
  return f.detail[0] != '\0' ? std::string(f.detail) + " (after " + exchange + ")" : exchange;
}

std::string FailureJson(const RedfishFailure& f) {
  return "\"result\":" + std::to_string(f.result) + ",\"link\":\"" + LinkLabel(f.link) +
         "\",\"httpStatus\":" + std::to_string(f.httpStatus) + ",\"method\":\"" +
         JsonEscape(f.method) + "\",\"uri\":\"" + JsonEscape(f.uri) + "\",\"detail\":\"" +
         JsonEscape(f.detail) + "\"";
}

}  // namespace toolkit
