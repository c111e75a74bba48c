#include "resources/inventory.h"

#include "resources/documents.h"
#include "resources/fetched_document.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

Inventory::Inventory(BmcRequests& requests) : requests_(requests) {}

int Inventory::WalkCollection(const std::string& uri, milliseconds timeout, const Visit& visit) {
  FetchedDocument collection;
  int result = FetchDocument(requests_, nullptr, uri, timeout, BodyCheck::Collection, collection);
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
  const int result = WalkCollection(BaseUrl() + collection, timeout, visit);
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
  TESSEL_LOG(Logger(), 3, "Unsupported %1 Index %2", kind, index);
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

}  // namespace redfish
