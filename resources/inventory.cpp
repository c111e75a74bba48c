#include "resources/inventory.h"

#include <rapidjson/document.h>

#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

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

int PopulateOnce(BmcRedfishConnection& connection, std::mutex& populateMutex, bool& populated,
                 Service::Logger* logger, const std::string& uri, std::chrono::milliseconds timeout,
                 const MemberVisit& visit) {
  std::lock_guard<std::mutex> lock(populateMutex);
  if (populated) return RedfishStatusOk;
  const int result = WalkCollection(connection, logger, uri, timeout, visit);
  populated = result == RedfishStatusOk;
  return result;
}

std::string ChildUri(Service::Logger* logger, const std::string& baseUrl, const char* kind,
                     const std::string& id, const char* child) {
  Service::LogInternal(logger, 5, "%1: %2", kind, id);
  std::string uri = baseUrl + id + "/" + child;
  Service::LogInternal(logger, 5, "%1: %2", child, uri);
  return uri;
}

}  // namespace redfish
