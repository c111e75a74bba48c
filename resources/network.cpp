#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

int BmcRedfishConnection::GetManagerEthernetNicCount(uint8_t managerIndex, uint8_t& nicCount,
                                                     std::chrono::milliseconds timeout) {
  int result = PopulateManagers(timeout);
  if (result == RedfishStatusOk)
    result = CheckIndex(logger, "Manager", managerIndex, managers.size());
  if (result != RedfishStatusOk) return result;
  // An 8-bit count: only the first 256 interfaces are addressable anyway.
  nicCount = static_cast<uint8_t>(managers[managerIndex].nicMacUris.size());
  return RedfishStatusOk;
}

int BmcRedfishConnection::GetManagerEthernetMac(std::string& mac, std::chrono::milliseconds timeout,
                                                uint8_t managerIndex, uint8_t nicIndex) {
  int result = PopulateManagers(timeout);
  if (result == RedfishStatusOk)
    result = CheckIndex(logger, "Manager", managerIndex, managers.size());
  if (result != RedfishStatusOk) return result;
  result = CheckIndex(logger, "Ethernet NIC", nicIndex, managers[managerIndex].nicMacUris.size());
  if (result != RedfishStatusOk) return result;
  const std::string uri = managers[managerIndex].nicMacUris[nicIndex];
  if (LogsAt(logger, 5)) Service::LogInternal(logger, 5, "MAC_URI: %1", uri);

  std::string body;
  result = MakeHttpRequestGet(uri, body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document document;
  ParseJson(document, body);
  std::string value;
  if (document.HasParseError() || !document.IsObject() ||
      !JsonString(document, "MACAddress", value)) {
    return RedfishStatusUnexpectedJson;
  }
  mac = value;
  return RedfishStatusOk;
}

}  // namespace redfish
