#pragma once

// The reads behind a health document: the managers (each health read), every
// component of every system and chassis (the walk, when something changed),
// and the firmware inventory (rarely). Collections are expanded where the BMC
// takes it; members given only as links are read four at a time. Each path
// is read at most once per walk, so a loop of links ends; each of the three
// sends at most kMaxReads requests, and the read's bound on members holds. What the
// BMC fails to serve is a gap, not a failure: only a spent budget, the
// transport or refused credentials end the read.

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "resources/health_document.h"
#include "resources/health_parts.h"
#include "resources/read_context.h"

namespace redfish {

class PartWalk {
 public:
  static constexpr size_t kMaxReads = 512;
  static constexpr size_t kMaxGaps = 16;

  explicit PartWalk(ReadContext& read) : read_(read) {}

  // The managers as parts (the BMC itself) and their firmware. known: their
  // paths from an earlier read, used where the BMC cannot expand the
  // collection (nothing known: the collection is read).
  int Managers(const std::vector<std::string>& known, std::vector<Part>& managers,
               std::vector<FirmwareEntry>& firmware);

  // Every chassis' status and every component of the systems and chassis,
  // with a bound of its own.
  int Components(std::vector<Part>& chassis, std::vector<Part>& parts);

  // The update service's firmware inventory; none where it has none.
  int FirmwareInventory(std::vector<FirmwareEntry>& firmware);

  const PartNotes& Notes() const { return notes_; }
  size_t LeftOut() const { return leftOut_; }
  size_t Loops() const { return loops_; }
  size_t GapCount() const { return gapCount_; }
  const std::vector<std::string>& Gaps() const { return gaps_; }

 private:
  enum class Role {
    Systems,      // the Systems collection
    Chassis,      // the Chassis collection
    System,       // a system: its processors, memory and storage
    ChassisBody,  // a chassis: its status, supplies, fans and adapters
    Parts,        // a collection of parts of one kind
    Part,         // one part
    Array,        // a resource holding parts in an array (Power, Thermal)
    Storages,     // a system's Storage collection
    Storage,      // one storage: its controllers, drives and volumes
    Managers,     // the Managers collection
    Manager,      // one manager
    Update,       // the update service: where its firmware inventory is
    Inventory,    // the firmware inventory collection
    Firmware,     // one firmware inventory entry
  };
  struct Job {
    std::string path;
    Role role;
    PartKind kind;
    std::string parent;
    const char* array;  // Role::Array
    size_t position;    // among its collection's members
  };
  struct Found {
    std::vector<Part>* chassis = nullptr;
    std::vector<Part>* parts = nullptr;
    std::vector<FirmwareEntry>* firmware = nullptr;
  };

  // Reads the jobs queued, and those their answers queue, until none is left.
  int Run(std::vector<Job> jobs, Found& found);
  int Fetch(const std::vector<Job>& jobs, std::vector<std::unique_ptr<Fetched>>& out);
  void Handle(const Job& job, const rapidjson::Value& body, Found& found, std::vector<Job>& next);
  void Queue(std::vector<Job>& next, Job job);
  void Members(const Job& job, const rapidjson::Value& collection, Role memberRole, Found& found,
               std::vector<Job>& next);
  void Gap(const std::string& path, const std::string& why);

  ReadContext& read_;
  std::set<std::string> visited_;
  PartNotes notes_;
  size_t leftOut_ = 0;
  size_t loops_ = 0;
  size_t reads_ = 0;
  size_t gapCount_ = 0;
  std::vector<std::string> gaps_;
};

// A result that ends a health read: the budget, the transport, the credentials.
bool EndsRead(int result);

}  // namespace redfish
