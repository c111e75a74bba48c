#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

int BmcRedfishConnection::GetChassisSensorInfo(std::string& sensorJson,
                                               std::chrono::milliseconds timeout,
                                               uint8_t chassisIndex) {
  int result = PopulateChassis(timeout);
  if (result == RedfishStatusOk)
    result = CheckIndex(logger, "Chassis", chassisIndex, chassis.size());
  if (result != RedfishStatusOk) return result;
  const std::string uri = chassis[chassisIndex].sensorsUri;
  if (LogsAt(logger, 5)) Service::LogInternal(logger, 5, "SENSOR_URI: %1", uri);

  std::string body;
  result = MakeHttpRequestGet(uri, body, timeout);
  if (result != RedfishStatusOk) return result;
  if (LogsAt(logger, 5)) Service::LogInternal(logger, 5, "SENSOR_URI JSON: %1", body);
  // Parsed only to confirm it is an object; the caller gets the text as sent.
  rapidjson::Document document;
  ParseJson(document, body);
  if (document.HasParseError() || !document.IsObject()) return RedfishStatusUnexpectedJson;
  sensorJson = body;
  return RedfishStatusOk;
}

}  // namespace redfish
