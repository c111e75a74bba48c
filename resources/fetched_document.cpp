#include "resources/fetched_document.h"

#include "resources/bmc_requests.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

int FetchDocument(BmcRequests& requests, const char* label, const std::string& uri,
                  std::chrono::milliseconds timeout, BodyCheck check, FetchedDocument& fetched) {
  std::string& body = fetched.body;
  rapidjson::Document& document = fetched.document;
  if (label != nullptr) TESSEL_LOG(requests.Logger(), 5, label, uri);
  const int result = requests.Get(uri, body, timeout);
  if (result != RedfishStatusOk) return result;
  if (check == BodyCheck::Parse) {
    ParseJson(document, body);
    return RedfishStatusOk;
  }
  return BmcRedfishUtils::VerifyJson(requests.Logger(), body, document,
                                     check == BodyCheck::Collection);
}

}  // namespace redfish
