#include "advice.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr char kSmbiosCheck[] =
    "redfishctl doctor shows the host interface record; run on a host with a Redfish host "
    "interface, or name the BMC with --host";
constexpr char kRouteCheck[] =
    "the route document: curl http://localhost:549/portico/config/json/bmcApi.json";
constexpr char kCredentialsCheck[] =
    "--user (or $BMC_USER) and the password ($BMC_PASSWORD or --password-file); failed logins "
    "may have locked the account";
constexpr char kDocumentCheck[] =
    "the BMC's document at that URI is not what Redfish says it should be";

bool IsHttpStatus(int code) { return code >= 100 && code < 600; }

std::string ProxyCheck(const RedfishFailure& f) {
  if (f.result == REDFISH_ERR_SYSTEM) return "is the proxy running and listening on localhost:80?";
  if (IsHttpStatus(f.result)) return "the proxy's route for /bmc/ and the proxy's log";
  return "does the proxy on localhost:80 speak HTTP/2 cleartext (prior knowledge)? "
         "curl --http2-prior-knowledge http://localhost/bmc/redfish/v1";
}

std::string BmcCheck(const RedfishFailure& f, const std::string& host) {
  if (f.result == REDFISH_ERR_TIMEOUT)
    return "raise --timeout; a BMC that is busy or resetting answers late or not at all";
  if (f.httpStatus == 502 || f.httpStatus == 504)
    return "the proxy cannot reach the BMC" +
           (host.empty() ? ": is it up?" : " at " + host + ": is it up, and is that its address?");
  if (f.httpStatus == 503)
    return "the BMC's Redfish service is unavailable (busy, starting or resetting): retry in a "
           "minute; if it stays so, reset the BMC";
  return "the BMC's answer above; its own log says more";
}

std::string ConfigEndpointCheck(const RedfishFailure& f, const std::string& host) {
  if (!IsHttpStatus(f.result))
    return "is the proxy running, with its configuration endpoint on localhost:549?";
  if (std::strcmp(f.method, "PUT") == 0 && !host.empty()) {
    // The endpoint refuses a route it cannot use, such as one to a name that
    // does not resolve; the name is not looked up here, as a resolver may
    // take longer than the command has left.
    unsigned char address[16];
    if (inet_pton(AF_INET, host.c_str(), address) == 1 ||
        inet_pton(AF_INET6, host.c_str(), address) == 1)
      return "the configuration endpoint refused a route to " + host + ": the proxy's log";
    return "the configuration endpoint refused a route to " + host +
           ": does that name resolve (getent hosts " + host + "), and is it the BMC?";
  }
  return "the proxy's log; a route to --host must name a reachable BMC";
}

std::string DiscoveryCheck(const RedfishFailure& f, const std::string& command) {
  if (f.result == REDFISH_UNKNOWN_VENDOR)
    return "the library reads the power state of, and sends power commands to, Dell, HPE and "
           "Lenovo BMCs only";
  if (f.result == REDFISH_ERR_NO_MEMBER && (command == "mac" || command == "power"))
    return "redfishctl mac (the BMC's MAC address)";
  if (command == "sensors")
    return "the chassis under /redfish/v1/Chassis: none links Sensors, ThermalSubsystem, "
           "PowerSubsystem, EnvironmentMetrics, Thermal or Power that hold a reading";
  return "what the BMC lists under /redfish/v1: Systems, Managers, Chassis";
}

std::string GuardCheck(const RedfishFailure& f) {
  switch (f.result) {
    case REDFISH_ERR_COMMAND_NOT_ALLOWED:
      return "the reset types the system advertises: redfishctl doctor";
    case REDFISH_ERR_MAC_MISMATCH:
      return "redfishctl mac (the BMC's MAC address)";
    default:
      return "redfishctl --verbose shows the refused request";
  }
}

}  // namespace

std::string FailureCheck(const RedfishFailure& f, const std::string& host,
                         const std::string& command) {
  // The links whose advice depends on the answer, then one for each other.
  if (f.link == REDFISH_LINK_CONFIG_ENDPOINT) return ConfigEndpointCheck(f, host);
  if (f.link == REDFISH_LINK_PROXY) return ProxyCheck(f);
  if (f.link == REDFISH_LINK_BMC) return BmcCheck(f, host);
  if (f.link == REDFISH_LINK_DISCOVERY) return DiscoveryCheck(f, command);
  if (f.link == REDFISH_LINK_GUARD) return GuardCheck(f);
  static const char* const kChecks[] = {"", "", kSmbiosCheck,      "", kRouteCheck,
                                        "", "", kCredentialsCheck, "", kDocumentCheck};
  const auto index = static_cast<size_t>(f.link);
  return index < sizeof kChecks / sizeof kChecks[0] ? kChecks[index] : "";
}
