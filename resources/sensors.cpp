#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "resources/inventory.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

int BmcRedfishConnection::PopulateChassis(std::chrono::milliseconds timeout) {
  return PopulateOnce(*this, populateMutex, chassisPopulated, logger,
                      baseUrl + "/redfish/v1/Chassis", timeout, [&](const std::string& id) -> int {
                        const std::string sensorsUri =
                            ChildUri(logger, baseUrl, "Chassis", id, "Sensors");

                        // Only probes that the collection exists, so that reading it later is
                        // one expanded request.
                        std::string probe;
                        const int status = MakeHttpRequestGet(sensorsUri, probe, timeout);
                        if (status == Tessel::Http::ResponseCode::NotFound) return RedfishStatusOk;
                        if (status != RedfishStatusOk) return status;
                        chassis.push_back({id, sensorsUri + "?$expand=.($levels=1)"});
                        return RedfishStatusOk;
                      });
}

int BmcRedfishConnection::GetChassisSensorInfo(std::string& sensorJson,
                                               std::chrono::milliseconds timeout,
                                               uint8_t chassisIndex) {
  int result = PopulateChassis(timeout);
  if (result == RedfishStatusOk)
    result = CheckIndex(logger, "Chassis", chassisIndex, chassis.size());
  if (result != RedfishStatusOk) return result;
  std::string body;
  result =
      FetchLogged(*this, logger, "SENSOR_URI: %1", chassis[chassisIndex].sensorsUri, body, timeout);
  if (result != RedfishStatusOk) return result;
  Tessel::Service::LogInternal(logger, 5, "SENSOR_URI JSON: %1", body);
  // Parsed only to confirm it is an object; the caller gets the text as sent.
  rapidjson::Document document;
  ParseJson(document, body);
  if (document.HasParseError() || !document.IsObject()) return RedfishStatusUnexpectedJson;
  sensorJson = body;
  return RedfishStatusOk;
}

}  // namespace redfish
