#pragma once

// What a connection has learnt of its BMC: the records of its systems,
// managers and chassis, the flags saying each walk is complete, and the lock
// the walks hold.
//
// Threading: a vector is appended to only by its walk, under populateMutex_,
// while its flag is false; the flag is set under the same lock when the walk
// succeeds, and the vector never changes again. A caller whose Populate
// returned 0 reads the records without any lock.
//
// Kept as designed although it looks odd: a failed walk leaves what it
// appended and the flag false; the retry walks the whole collection again and
// appends behind it, so the indices see both copies.

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "resources/bmc_requests.h"
#include "resources/read_memory.h"
#include "resources/redfish_records.h"

namespace redfish {

class Inventory {
 public:
  using Visit = std::function<int(const std::string& id)>;

  // requests outlives the inventory: every walk and read goes through it.
  explicit Inventory(BmcRequests& requests);
  Inventory(const Inventory&) = delete;
  Inventory& operator=(const Inventory&) = delete;

  int PopulateSystems(std::chrono::milliseconds timeout);
  int PopulateManagers(std::chrono::milliseconds timeout);
  int PopulateChassis(std::chrono::milliseconds timeout);

  // GETs a collection and hands each member's "@odata.id" to visit, in order;
  // stops at the first failure, visit's included.
  int WalkCollection(const std::string& uri, std::chrono::milliseconds timeout, const Visit& visit);

  // Walks the collection when it is not yet known, then checks that index
  // names one of its records: 40001 and "Unsupported <kind> Index <i>" when
  // it does not.
  int PopulatedSystem(std::chrono::milliseconds timeout, size_t index);
  int PopulatedManager(std::chrono::milliseconds timeout, size_t index);
  int PopulatedChassis(std::chrono::milliseconds timeout, size_t index);

  // 0 when index is below size; otherwise logs "Unsupported <kind> Index <i>"
  // and returns 40001.
  int CheckIndex(const char* kind, size_t index, size_t size) const;

  BmcRequests& Requests() const { return requests_; }
  Tessel::Service::Logger* Logger() const { return requests_.Logger(); }
  const std::string& BaseUrl() const { return requests_.BaseUrl(); }

  std::vector<RedfishManagerRecord> managers;
  bool managersPopulated = false;
  std::vector<RedfishSystemRecord> systems;
  bool systemsPopulated = false;
  std::vector<RedfishChassisRecord> chassis;
  bool chassisPopulated = false;
  // The 1.1 reads' own, apart from the walks above.
  ReadMemory memory;

 private:
  int PopulateOnce(bool& populated, const char* collection, std::chrono::milliseconds timeout,
                   const Visit& visit);

  BmcRequests& requests_;
  std::mutex populateMutex_;
};

// A member's sub-resource URI, logged as discovery goes ("Manager: …",
// "EthernetInterfaces: …").
std::string ChildUri(const Inventory& inventory, const char* kind, const std::string& id,
                     const char* child);

}  // namespace redfish
