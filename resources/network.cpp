#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

int BmcRedfishConnection::GetManagerEthernetNicCount(uint8_t managerIndex, uint8_t& nicCount,
                                                     std::chrono::milliseconds timeout) {
  int result = PopulateManagers(timeout);
  if (result != RedfishStatusOk) return result;
  if (managerIndex >= managers.size()) {
    if (Level() >= 3) Service::LogInternal(logger, 3, "Unsupported Manager Index %1", managerIndex);
    return RedfishStatusNoMember;
  }
  // An 8-bit count: only the first 256 interfaces are addressable anyway.
  nicCount = static_cast<uint8_t>(managers[managerIndex].nicMacUris.size());
  return RedfishStatusOk;
}

int BmcRedfishConnection::GetManagerEthernetMac(std::string& mac, std::chrono::milliseconds timeout,
                                                uint8_t managerIndex, uint8_t nicIndex) {
  int result = PopulateManagers(timeout);
  if (result != RedfishStatusOk) return result;
  if (managerIndex >= managers.size()) {
    if (Level() >= 3) Service::LogInternal(logger, 3, "Unsupported Manager Index %1", managerIndex);
    return RedfishStatusNoMember;
  }
  if (nicIndex >= managers[managerIndex].nicMacUris.size()) {
    if (Level() >= 3) {
      Service::LogInternal(logger, 3, "Unsupported Ethernet NIC Index %1", nicIndex);
    }
    return RedfishStatusNoMember;
  }
  const std::string uri = managers[managerIndex].nicMacUris[nicIndex];
  if (Level() >= 5) Service::LogInternal(logger, 5, "MAC_URI: %1", uri);

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
