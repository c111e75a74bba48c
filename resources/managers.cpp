#include "resources/managers.h"

#include <rapidjson/document.h>

#include "resources/documents.h"
#include "resources/fetched_document.h"
#include "resources/inventory.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

namespace {

int DiscoverManager(Inventory& inventory, const std::string& id, milliseconds timeout) {
  RedfishManagerRecord manager{id, {}};
  const std::string nics = ChildUri(inventory, "Manager", id, "EthernetInterfaces");
  const int result = inventory.WalkCollection(nics, timeout, [&](const std::string& nic) {
    manager.nicMacUris.push_back(inventory.BaseUrl() + nic + "/?$select=MACAddress");
    TESSEL_LOG(inventory.Logger(), 5, "NIC: %1", nic);
    return RedfishStatusOk;
  });
  if (result != RedfishStatusOk) return result;
  inventory.managers.push_back(manager);
  return RedfishStatusOk;
}

}  // namespace

int Inventory::PopulateManagers(milliseconds timeout) {
  return PopulateOnce(managersPopulated, "/redfish/v1/Managers", timeout,
                      [&](const std::string& id) { return DiscoverManager(*this, id, timeout); });
}

int NicCount(Inventory& inventory, uint8_t managerIndex, uint8_t& nicCount, milliseconds timeout) {
  const int result = inventory.PopulatedManager(timeout, managerIndex);
  if (result != RedfishStatusOk) return result;
  // An 8-bit count: only the first 256 interfaces are addressable anyway.
  nicCount = static_cast<uint8_t>(inventory.managers[managerIndex].nicMacUris.size());
  return RedfishStatusOk;
}

int ReadMac(Inventory& inventory, std::string& mac, milliseconds timeout, uint8_t managerIndex,
            uint8_t nicIndex) {
  int result = inventory.PopulatedManager(timeout, managerIndex);
  if (result != RedfishStatusOk) return result;
  const std::vector<std::string>& uris = inventory.managers[managerIndex].nicMacUris;
  result = inventory.CheckIndex("Ethernet NIC", nicIndex, uris.size());
  if (result != RedfishStatusOk) return result;
  FetchedDocument fetched;
  result = FetchDocument(inventory.Requests(), "MAC_URI: %1", uris[nicIndex], timeout,
                         BodyCheck::Parse, fetched);
  return result != RedfishStatusOk ? result : MacAddressOf(fetched.document, mac);
}

}  // namespace redfish
