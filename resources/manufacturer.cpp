#include <rapidjson/document.h>

#include "connection/bmc_redfish_connection.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

int BmcRedfishConnection::ParseManufacturer(RedfishSystem& system,
                                            std::chrono::milliseconds timeout) {
  std::string body;
  int result = MakeHttpRequestGet(system.manufacturerUri, body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document document;
  ParseJson(document, body);
  if (document.HasParseError() || !document.IsObject()) return RedfishStatusUnexpectedJson;
  std::string manufacturer;
  if (!JsonString(document, "Manufacturer", manufacturer)) return RedfishStatusUnknownVendor;
  return BmcRedfishUtils::StringToRedfishOem(logger, manufacturer, system.oem);
}

}  // namespace redfish
