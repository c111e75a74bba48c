#include <rapidjson/document.h>

#include <functional>

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

using MemberVisit = std::function<int(const std::string& id)>;

// GETs a collection and hands each member's "@odata.id" to visit, in order.
// Stops at the first failure, visit's included.
int WalkCollection(BmcRedfishConnection& connection, Service::Logger* logger,
                   const std::string& uri, std::chrono::milliseconds timeout,
                   const MemberVisit& visit) {
  std::string body;
  int result = connection.MakeHttpRequestGet(uri, body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document collection;
  result = BmcRedfishUtils::VerifyJson(logger, body, collection, true);
  if (result != RedfishStatusOk) return result;
  for (const rapidjson::Value& entry : collection["Members"].GetArray()) {
    std::string id;
    if (!entry.IsObject() || !JsonString(entry, "@odata.id", id)) {
      return RedfishStatusUnexpectedJson;
    }
    result = visit(id);
    if (result != RedfishStatusOk) return result;
  }
  return RedfishStatusOk;
}

// One discovery walk of a collection under the populate mutex, unless an
// earlier walk succeeded; marks success. A free function, so that it stays
// out of the exported class.
int PopulateOnce(BmcRedfishConnection& connection, std::mutex& populateMutex, bool& populated,
                 Service::Logger* logger, const std::string& uri, std::chrono::milliseconds timeout,
                 const MemberVisit& visit) {
  std::lock_guard<std::mutex> lock(populateMutex);
  if (populated) return RedfishStatusOk;
  const int result = WalkCollection(connection, logger, uri, timeout, visit);
  populated = result == RedfishStatusOk;
  return result;
}

}  // namespace

// Threading: the vectors systems, managers and chassis are appended to only
// here, under populateMutex, while their flag is false; the flag is set under
// the same lock when a walk succeeds, and the vector never changes again. A
// caller whose Populate returned 0 may therefore read the records without any
// lock. Discovery never clears what an earlier, failed walk appended: a retry
// walks the whole collection again and the indices see both copies.

int BmcRedfishConnection::PopulateSystems(std::chrono::milliseconds timeout) {
  return PopulateOnce(*this, populateMutex, systemsPopulated, logger, baseUrl + kSystemsPath,
                      timeout, [&](const std::string& id) -> int {
                        RedfishSystem system;
                        system.uri = id;
                        system.powerStateUri = baseUrl + id + "/?$select=PowerState";
                        system.manufacturerUri = baseUrl + id + "/?$select=Manufacturer";
                        int status = ParseManufacturer(system, timeout);
                        if (status != RedfishStatusOk) return status;

                        const std::string actionsUri = baseUrl + id + "/?$select=Actions";
                        if (LogsAt(logger, 5))
                          Service::LogInternal(logger, 5, "Embedded: %1", actionsUri);
                        std::string actions;
                        status = MakeHttpRequestGet(actionsUri, actions, timeout);
                        if (status != RedfishStatusOk) return status;
                        system.resetUri = baseUrl;
                        status = ParseRedfishPowerActions(actions, system, system.oem);
                        if (status != RedfishStatusOk) return status;
                        systems.push_back(system);
                        return RedfishStatusOk;
                      });
}

int BmcRedfishConnection::PopulateManagers(std::chrono::milliseconds timeout) {
  return PopulateOnce(*this, populateMutex, managersPopulated, logger, baseUrl + kManagersPath,
                      timeout, [&](const std::string& id) -> int {
                        RedfishManager manager;
                        manager.uri = id;
                        if (LogsAt(logger, 5)) Service::LogInternal(logger, 5, "Manager: %1", id);
                        const std::string nicsUri = baseUrl + id + "/EthernetInterfaces";
                        if (LogsAt(logger, 5))
                          Service::LogInternal(logger, 5, "EthernetInterfaces: %1", nicsUri);
                        const int status = WalkCollection(
                            *this, logger, nicsUri, timeout, [&](const std::string& nic) -> int {
                              manager.nicMacUris.push_back(baseUrl + nic + "/?$select=MACAddress");
                              if (LogsAt(logger, 5))
                                Service::LogInternal(logger, 5, "NIC: %1", nic);
                              return RedfishStatusOk;
                            });
                        if (status != RedfishStatusOk) return status;
                        managers.push_back(manager);
                        return RedfishStatusOk;
                      });
}

int BmcRedfishConnection::PopulateChassis(std::chrono::milliseconds timeout) {
  return PopulateOnce(*this, populateMutex, chassisPopulated, logger, baseUrl + kChassisPath,
                      timeout, [&](const std::string& id) -> int {
                        RedfishChassis record;
                        record.uri = id;
                        if (LogsAt(logger, 5)) Service::LogInternal(logger, 5, "Chassis: %1", id);
                        const std::string sensorsUri = baseUrl + id + "/Sensors";
                        if (LogsAt(logger, 5))
                          Service::LogInternal(logger, 5, "Sensors: %1", sensorsUri);

                        // Only probes that the collection exists, so that reading it later is
                        // one expanded request.
                        std::string probe;
                        const int status = MakeHttpRequestGet(sensorsUri, probe, timeout);
                        if (status == Tessel::Http::ResponseCode::NotFound) return RedfishStatusOk;
                        if (status != RedfishStatusOk) return status;
                        record.sensorsUri = sensorsUri + "?$expand=.($levels=1)";
                        chassis.push_back(record);
                        return RedfishStatusOk;
                      });
}

}  // namespace redfish
