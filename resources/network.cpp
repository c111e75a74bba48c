#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "resources/inventory.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

int BmcRedfishConnection::PopulateManagers(std::chrono::milliseconds timeout) {
  return PopulateOnce(*this, populateMutex, managersPopulated, logger,
                      baseUrl + "/redfish/v1/Managers", timeout, [&](const std::string& id) -> int {
                        RedfishManager manager{id, {}};
                        const std::string nicsUri =
                            ChildUri(logger, baseUrl, "Manager", id, "EthernetInterfaces");
                        const int status = WalkCollection(
                            *this, logger, nicsUri, timeout, [&](const std::string& nic) -> int {
                              manager.nicMacUris.push_back(baseUrl + nic + "/?$select=MACAddress");
                              Tessel::Service::LogInternal(logger, 5, "NIC: %1", nic);
                              return RedfishStatusOk;
                            });
                        if (status != RedfishStatusOk) return status;
                        managers.push_back(manager);
                        return RedfishStatusOk;
                      });
}

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
  std::string body;
  result = FetchLogged(*this, logger, "MAC_URI: %1", managers[managerIndex].nicMacUris[nicIndex],
                       body, timeout);
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
