#include "resources/any_resource.h"

#include <rapidjson/document.h>

#include "resources/fetched_document.h"
#include "resources/inventory.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {

bool UnderServiceRoot(const std::string& path) {
  constexpr char kRoot[] = "/redfish/v1";
  constexpr size_t kLength = sizeof kRoot - 1;
  return path.compare(0, kLength, kRoot) == 0 &&
         (path.size() == kLength || path[kLength] == '/' || path[kLength] == '?');
}

}  // namespace

int ReadResource(Inventory& inventory, const std::string& path, std::chrono::milliseconds timeout,
                 std::string& json) {
  if (!UnderServiceRoot(path)) {
    NoteFailure(REDFISH_LINK_GUARD, RedfishStatusInvalidArgument,
                "only resources under /redfish/v1 are read");
    return RedfishStatusInvalidArgument;
  }
  FetchedDocument fetched;
  const int result = FetchDocument(inventory.Requests(), nullptr, inventory.BaseUrl() + path,
                                   timeout, BodyCheck::Parse, fetched);
  if (result != RedfishStatusOk) return result;
  if (fetched.document.HasParseError()) return RedfishStatusBadJson;
  if (!fetched.document.IsObject()) return RedfishStatusUnexpectedJson;
  json = std::move(fetched.body);
  return RedfishStatusOk;
}

}  // namespace redfish
