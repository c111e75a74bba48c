#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "platform/tessel/http.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

namespace {
constexpr char kSystemsPath[] = "/redfish/v1/Systems";
constexpr char kManagersPath[] = "/redfish/v1/Managers";
constexpr char kChassisPath[] = "/redfish/v1/Chassis";
}  // namespace

// Discovery never clears what an earlier, failed walk appended: a retry walks
// the whole collection again and the indices see both copies.

int BmcRedfishConnection::PopulateSystems(std::chrono::milliseconds timeout) {
  std::lock_guard<std::mutex> lock(populateMutex);
  if (systemsPopulated) return RedfishStatusOk;

  std::string body;
  int result = MakeHttpRequestGet(baseUrl + kSystemsPath, body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document collection;
  result = BmcRedfishUtils::VerifyJson(logger, body, collection, true);
  if (result != RedfishStatusOk) return result;

  for (const rapidjson::Value& entry : collection["Members"].GetArray()) {
    RedfishSystem system;
    if (!entry.IsObject() || !JsonString(entry, "@odata.id", system.uri)) {
      return RedfishStatusUnexpectedJson;
    }
    system.powerStateUri = baseUrl + system.uri + "/?$select=PowerState";
    system.manufacturerUri = baseUrl + system.uri + "/?$select=Manufacturer";
    result = ParseManufacturer(system, timeout);
    if (result != RedfishStatusOk) return result;

    const std::string actionsUri = baseUrl + system.uri + "/?$select=Actions";
    if (Level() >= 5) Service::LogInternal(logger, 5, "Embedded: %1", actionsUri);
    std::string actions;
    result = MakeHttpRequestGet(actionsUri, actions, timeout);
    if (result != RedfishStatusOk) return result;
    system.resetUri = baseUrl;
    result = ParseRedfishPowerActions(actions, system, system.oem);
    if (result != RedfishStatusOk) return result;
    systems.push_back(system);
  }
  systemsPopulated = true;
  return RedfishStatusOk;
}

int BmcRedfishConnection::PopulateManagers(std::chrono::milliseconds timeout) {
  std::lock_guard<std::mutex> lock(populateMutex);
  if (managersPopulated) return RedfishStatusOk;

  std::string body;
  int result = MakeHttpRequestGet(baseUrl + kManagersPath, body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document collection;
  result = BmcRedfishUtils::VerifyJson(logger, body, collection, true);
  if (result != RedfishStatusOk) return result;

  for (const rapidjson::Value& entry : collection["Members"].GetArray()) {
    RedfishManager manager;
    if (!entry.IsObject() || !JsonString(entry, "@odata.id", manager.uri)) {
      return RedfishStatusUnexpectedJson;
    }
    if (Level() >= 5) Service::LogInternal(logger, 5, "Manager: %1", manager.uri);
    const std::string nicsUri = baseUrl + manager.uri + "/EthernetInterfaces";
    if (Level() >= 5) Service::LogInternal(logger, 5, "EthernetInterfaces: %1", nicsUri);

    std::string nicsBody;
    result = MakeHttpRequestGet(nicsUri, nicsBody, timeout);
    if (result != RedfishStatusOk) return result;
    rapidjson::Document nics;
    result = BmcRedfishUtils::VerifyJson(logger, nicsBody, nics, true);
    if (result != RedfishStatusOk) return result;
    for (const rapidjson::Value& nic : nics["Members"].GetArray()) {
      std::string id;
      if (!nic.IsObject() || !JsonString(nic, "@odata.id", id)) return RedfishStatusUnexpectedJson;
      manager.nicMacUris.push_back(baseUrl + id + "/?$select=MACAddress");
      if (Level() >= 5) Service::LogInternal(logger, 5, "NIC: %1", id);
    }
    managers.push_back(manager);
  }
  managersPopulated = true;
  return RedfishStatusOk;
}

int BmcRedfishConnection::PopulateChassis(std::chrono::milliseconds timeout) {
  std::lock_guard<std::mutex> lock(populateMutex);
  if (chassisPopulated) return RedfishStatusOk;

  std::string body;
  int result = MakeHttpRequestGet(baseUrl + kChassisPath, body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document collection;
  result = BmcRedfishUtils::VerifyJson(logger, body, collection, true);
  if (result != RedfishStatusOk) return result;

  for (const rapidjson::Value& entry : collection["Members"].GetArray()) {
    RedfishChassis record;
    if (!entry.IsObject() || !JsonString(entry, "@odata.id", record.uri)) {
      return RedfishStatusUnexpectedJson;
    }
    if (Level() >= 5) Service::LogInternal(logger, 5, "Chassis: %1", record.uri);
    const std::string sensorsUri = baseUrl + record.uri + "/Sensors";
    if (Level() >= 5) Service::LogInternal(logger, 5, "Sensors: %1", sensorsUri);

    // Only probes that the collection exists, so that reading it later is one
    // expanded request.
    std::string probe;
    result = MakeHttpRequestGet(sensorsUri, probe, timeout);
    if (result == Tessel::Http::ResponseCode::NotFound) continue;
    if (result != RedfishStatusOk) return result;
    record.sensorsUri = sensorsUri + "?$expand=.($levels=1)";
    chassis.push_back(record);
  }
  chassisPopulated = true;
  return RedfishStatusOk;
}

}  // namespace redfish
