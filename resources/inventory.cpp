#include "resources/inventory.h"

#include "connection/bmc_redfish_connection.h"
#include "resources/documents.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

Inventory::Inventory(BmcRedfishConnection& connection, Tessel::Service::Logger* logger,
                     std::string baseUrl)
    : connection_(connection), logger_(logger), baseUrl_(std::move(baseUrl)) {}

int Inventory::WalkCollection(const std::string& uri, milliseconds timeout, const Visit& visit) {
  FetchedDocument collection;
  int result = FetchDocument(*this, nullptr, uri, timeout, BodyCheck::Collection, collection);
  if (result != RedfishStatusOk) return result;
  // Members before a malformed entry are visited first, as a walk in order
  // would: the failure comes when the walk reaches it.
  std::vector<std::string> ids;
  const int shape = MemberIds(collection.document, ids);
  for (const std::string& id : ids) {
    result = visit(id);
    if (result != RedfishStatusOk) return result;
  }
  return shape;
}

int Inventory::PopulateOnce(bool& populated, const char* collection, milliseconds timeout,
                            const Visit& visit) {
  std::lock_guard<std::mutex> lock(populateMutex_);
  if (populated) return RedfishStatusOk;
  const int result = WalkCollection(baseUrl_ + collection, timeout, visit);
  populated = result == RedfishStatusOk;
  return result;
}

int Inventory::PopulatedSystem(milliseconds timeout, size_t index) {
  const int result = PopulateSystems(timeout);
  return result != RedfishStatusOk ? result : CheckIndex("System", index, systems.size());
}

int Inventory::PopulatedManager(milliseconds timeout, size_t index) {
  const int result = PopulateManagers(timeout);
  return result != RedfishStatusOk ? result : CheckIndex("Manager", index, managers.size());
}

int Inventory::PopulatedChassis(milliseconds timeout, size_t index) {
  const int result = PopulateChassis(timeout);
  return result != RedfishStatusOk ? result : CheckIndex("Chassis", index, chassis.size());
}

int Inventory::CheckIndex(const char* kind, size_t index, size_t size) const {
  if (index < size) return RedfishStatusOk;
  TESSEL_LOG(logger_, 3, "Unsupported %1 Index %2", kind, index);
  NoteFailure(
      REDFISH_LINK_DISCOVERY, RedfishStatusNoMember,
      Tessel::Detail::ASPrintInternal("no %1 at index %2: the BMC lists %3", kind, index, size));
  return RedfishStatusNoMember;
}

std::string ChildUri(const Inventory& inventory, const char* kind, const std::string& id,
                     const char* child) {
  TESSEL_LOG(inventory.Logger(), 5, "%1: %2", kind, id);
  std::string uri = inventory.BaseUrl() + id + "/" + child;
  TESSEL_LOG(inventory.Logger(), 5, "%1: %2", child, uri);
  return uri;
}

int FetchDocument(const Inventory& inventory, const char* label, const std::string& uri,
                  milliseconds timeout, BodyCheck check, FetchedDocument& fetched) {
  std::string& body = fetched.body;
  rapidjson::Document& document = fetched.document;
  if (label != nullptr) TESSEL_LOG(inventory.Logger(), 5, label, uri);
  const int result = inventory.Connection().MakeHttpRequestGet(uri, body, timeout);
  if (result != RedfishStatusOk) return result;
  if (check == BodyCheck::Parse) {
    ParseJson(document, body);
    return RedfishStatusOk;
  }
  return BmcRedfishUtils::VerifyJson(inventory.Logger(), body, document,
                                     check == BodyCheck::Collection);
}

}  // namespace redfish
