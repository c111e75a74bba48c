#include "failure_text.h"

#include <netdb.h>

#include <cstdio>
#include <cstring>

namespace {

bool Resolves(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  freeaddrinfo(found);
  return true;
}

constexpr char kSmbiosCheck[] =
    "redfishctl doctor shows the host interface record; run on a host with a Redfish host "
    "interface or inside tools/host-sim, or name the BMC with --host";
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
  if (std::strcmp(f.method, "PUT") == 0 && !host.empty() && !Resolves(host))
    return "the host name " + host + " does not resolve";
  return "the proxy's log; a route to --host must name a reachable BMC";
}

std::string DiscoveryCheck(const RedfishFailure& f, const std::string& command) {
  if (f.result == REDFISH_UNKNOWN_VENDOR)
    return "the library reads the power state of, and sends power commands to, Dell, HPE and "
           "Lenovo BMCs only";
  if (f.result == REDFISH_ERR_NO_MEMBER && (command == "mac" || command == "power"))
    return "redfishctl mac (the BMC's MAC address)";
  if (command == "sensors")
    return "the chassis under /redfish/v1/Chassis: none links a Sensors collection, Thermal or "
           "Power";
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

std::string JsonEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out;
}

std::string FailureJson(const RedfishFailure& f) {
  return "\"result\":" + std::to_string(f.result) + ",\"link\":\"" + LinkLabel(f.link) +
         "\",\"httpStatus\":" + std::to_string(f.httpStatus) + ",\"method\":\"" +
         JsonEscape(f.method) + "\",\"uri\":\"" + JsonEscape(f.uri) + "\",\"detail\":\"" +
         JsonEscape(f.detail) + "\"";
}
