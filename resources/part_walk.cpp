#include "resources/part_walk.h"

#include "platform/tessel/http.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {

using Value = rapidjson::Value;

constexpr char kSystems[] = "/redfish/v1/Systems";
constexpr char kChassis[] = "/redfish/v1/Chassis";
constexpr char kManagers[] = "/redfish/v1/Managers";
constexpr char kUpdateService[] = "/redfish/v1/UpdateService";
constexpr char kExpand[] = "$expand=.($levels=1)";
constexpr char kManagerSelect[] = "$select=Id,Name,FirmwareVersion,Status";

// The Id that names a system or storage as its parts' parent.
std::string IdOf(const Value& body, const std::string& path) {
  std::string id = JsonText(body, "Id", kMaxText);
  return id.empty() ? path.substr(path.find_last_of('/') + 1) : id;
}

}  // namespace

bool EndsRead(int result) {
  switch (result) {
    case RedfishStatusTimeout:
    case RedfishStatusSslVerify:
    case RedfishStatusSystemError:
    case RedfishStatusTransportError:
    case RedfishStatusUnauthorized:
      return true;
    default:
      return false;
  }
}

int PartWalk::Managers(const std::vector<std::string>& known, std::vector<Part>& managers,
                       std::vector<FirmwareEntry>& firmware) {
  QueryFeatures features;
  int result = read_.Features(features);
  if (result != RedfishStatusOk) return result;
  Found found{nullptr, &managers, &firmware};
  reads_ = 0;
  const Job collection{kManagers, Role::Managers, PartKind::Manager, "", nullptr, 0};
  if (features.expand || known.empty()) return Run({collection}, found);
  std::vector<Job> jobs;
  for (size_t i = 0; i < known.size(); ++i) {
    jobs.push_back({known[i], Role::Manager, PartKind::Manager, "", nullptr, i});
  }
  const size_t gaps = gapCount_;
  result = Run(jobs, found);
  if (result != RedfishStatusOk || (gapCount_ == gaps && managers.size() == known.size())) {
    return result;
  }
  // A manager known before is gone or fails: the collection says which there are.
  managers.clear();
  firmware.clear();
  visited_.clear();
  gaps_.clear();
  gapCount_ = 0;
  return Run({collection}, found);
}

int PartWalk::Components(std::vector<Part>& chassis, std::vector<Part>& parts) {
  Found found{&chassis, &parts, nullptr};
  reads_ = 0;
  return Run({{kSystems, Role::Systems, PartKind::System, "", nullptr, 0},
              {kChassis, Role::Chassis, PartKind::Chassis, "", nullptr, 0}},
             found);
}

int PartWalk::FirmwareInventory(std::vector<FirmwareEntry>& firmware) {
  Found found{nullptr, nullptr, &firmware};
  reads_ = 0;
  return Run({{kUpdateService, Role::Update, PartKind::Manager, "", nullptr, 0}}, found);
}

int PartWalk::Run(std::vector<Job> jobs, Found& found) {
  std::vector<Job> pending;
  for (Job& job : jobs) Queue(pending, std::move(job));
  while (!pending.empty()) {
    std::vector<Job> batch;
    batch.swap(pending);
    std::vector<std::unique_ptr<Fetched>> out;
    int result = Fetch(batch, out);
    if (result != RedfishStatusOk) return result;
    for (size_t i = 0; i < batch.size(); ++i) {
      const Job& job = batch[i];
      const Fetched& f = *out[i];
      if (EndsRead(f.result)) return f.result;
      const bool member = job.role == Role::Part || job.role == Role::Manager ||
                          job.role == Role::System || job.role == Role::ChassisBody ||
                          job.role == Role::Storage || job.role == Role::Firmware;
      // A collection or resource that is not there holds no parts; a member
      // that is not there is a link to nowhere.
      if (f.result == Tessel::Http::ResponseCode::NotFound && !member) continue;
      if (f.result != RedfishStatusOk) {
        Gap(job.path, "answered " + std::to_string(f.result));
      } else if (f.document.HasParseError() || !f.document.IsObject()) {
        Gap(job.path, "not a JSON object");
      } else {
        Handle(job, f.document, found, pending);
      }
    }
  }
  return RedfishStatusOk;
}

int PartWalk::Fetch(const std::vector<Job>& jobs, std::vector<std::unique_ptr<Fetched>>& out) {
  QueryFeatures features;
  int result = read_.Features(features);
  if (result != RedfishStatusOk) return result;
  struct Asked {
    QueryOption option;
    const char* query;
  };
  std::vector<Asked> asked;
  std::vector<std::string> targets;
  for (const Job& job : jobs) {
    Asked a{QueryOption::Select, nullptr};
    switch (job.role) {
      case Role::Systems:
      case Role::Chassis:
      case Role::Parts:
      case Role::Storages:
      case Role::Managers:
      case Role::Inventory:
        if (features.expand) a = {QueryOption::Expand, kExpand};
        break;
      case Role::Manager:
        if (features.select) a = {QueryOption::Select, kManagerSelect};
        break;
      default:
        break;
    }
    asked.push_back(a);
    targets.push_back(a.query != nullptr ? job.path + "?" + a.query : job.path);
  }
  result = read_.GetAll(targets, out);
  if (result == RedfishStatusTimeout && read_.Left().count() == 0) return result;
  // A BMC that advertised the option but refuses it: the first refusal is
  // asked again through the read, which remembers it for the connection and
  // reads plainly; the others are read plainly.
  bool noted = false;
  std::vector<size_t> again;
  for (size_t i = 0; i < jobs.size(); ++i) {
    const int status = out[i]->result;
    if (asked[i].query == nullptr || (status != Tessel::Http::ResponseCode::NotImplemented &&
                                      status != Tessel::Http::ResponseCode::BadRequest)) {
      continue;
    }
    if (!noted) {
      noted = true;
      bool applied = false;
      read_.GetWithQuery(jobs[i].path, asked[i].option, asked[i].query, *out[i], applied);
    } else {
      again.push_back(i);
    }
  }
  if (again.empty()) return RedfishStatusOk;
  std::vector<std::string> plain;
  plain.reserve(again.size());
  for (size_t i : again) plain.push_back(jobs[i].path);
  std::vector<std::unique_ptr<Fetched>> reread;
  result = read_.GetAll(plain, reread);
  if (result == RedfishStatusTimeout && read_.Left().count() == 0) return result;
  for (size_t k = 0; k < again.size(); ++k) out[again[k]] = std::move(reread[k]);
  return RedfishStatusOk;
}

void PartWalk::Queue(std::vector<Job>& next, Job job) {
  if (job.path.empty()) return;
  if (visited_.count(job.path) != 0) {
    ++loops_;
    return;
  }
  if (reads_ == kMaxReads) {
    ++leftOut_;
    return;
  }
  ++reads_;
  visited_.insert(job.path);
  next.push_back(std::move(job));
}

void PartWalk::Members(const Job& job, const Value& collection, Role memberRole, Found& found,
                       std::vector<Job>& next) {
  const Value* members = JsonMember(collection, "Members");
  if (members == nullptr || !members->IsArray()) {
    Gap(job.path, "no Members array");
    return;
  }
  size_t position = 0;
  for (const Value& member : members->GetArray()) {
    const size_t at = position++;
    if (!member.IsObject()) continue;
    std::string link;
    const bool linked = JsonString(member, "@odata.id", link);
    link = RequestPath(std::move(link));
    const bool whole = !linked || member.MemberCount() > 1;
    if (!link.empty() && visited_.count(link) != 0) {
      ++loops_;
      continue;
    }
    if (!whole && reads_ == kMaxReads) {
      ++leftOut_;
      continue;
    }
    if (!read_.Follow(1)) {
      ++leftOut_;
      continue;
    }
    Job m{link, memberRole, job.kind, job.parent, nullptr, at};
    if (whole) {
      if (!link.empty()) visited_.insert(link);
      Handle(m, member, found, next);
    } else {
      Queue(next, std::move(m));
    }
  }
}

void PartWalk::Handle(const Job& job, const Value& body, Found& found, std::vector<Job>& next) {
  // A collection's members, and the role each has.
  static constexpr std::pair<Role, Role> kCollections[] = {
      {Role::Systems, Role::System},   {Role::Chassis, Role::ChassisBody},
      {Role::Managers, Role::Manager}, {Role::Inventory, Role::Firmware},
      {Role::Storages, Role::Storage}, {Role::Parts, Role::Part}};
  for (const auto& [collection, member] : kCollections) {
    if (job.role == collection) {
      Members(job, body, member, found, next);
      return;
    }
  }
  switch (job.role) {
    case Role::System: {
      const std::string id = IdOf(body, job.path);
      Queue(next, {LinkOf(body, "Processors"), Role::Parts, PartKind::Processor, id, nullptr, 0});
      Queue(next, {LinkOf(body, "Memory"), Role::Parts, PartKind::Memory, id, nullptr, 0});
      Queue(next, {LinkOf(body, "Storage"), Role::Storages, PartKind::Drive, id, nullptr, 0});
      return;
    }
    case Role::ChassisBody: {
      Part chassis = PartOf(PartKind::Chassis, body, "", job.position, notes_);
      if (chassis.odataId.empty()) chassis.odataId = job.path;
      const std::string id = chassis.id;
      if (found.chassis != nullptr) found.chassis->push_back(std::move(chassis));
      // The newer subsystems where the chassis has them; their collections
      // sit at the paths Redfish fixes for them.
      const std::string power = LinkOf(body, "PowerSubsystem");
      if (!power.empty()) {
        Queue(next, {power + "/PowerSupplies", Role::Parts, PartKind::PowerSupply, id, nullptr, 0});
      } else {
        Queue(next,
              {LinkOf(body, "Power"), Role::Array, PartKind::PowerSupply, id, "PowerSupplies", 0});
      }
      const std::string thermal = LinkOf(body, "ThermalSubsystem");
      if (!thermal.empty()) {
        Queue(next, {thermal + "/Fans", Role::Parts, PartKind::Fan, id, nullptr, 0});
      } else {
        Queue(next, {LinkOf(body, "Thermal"), Role::Array, PartKind::Fan, id, "Fans", 0});
      }
      Queue(next, {LinkOf(body, "NetworkAdapters"), Role::Parts, PartKind::NetworkAdapter, id,
                   nullptr, 0});
      return;
    }
    case Role::Storage: {
      const std::string id = IdOf(body, job.path);
      const std::string controllers = LinkOf(body, "Controllers");
      if (!controllers.empty()) {
        Queue(next, {controllers, Role::Parts, PartKind::StorageController, id, nullptr, 0});
      } else if (found.parts != nullptr) {
        PartsOfArray(PartKind::StorageController, body, "StorageControllers", id, *found.parts,
                     notes_);
      }
      size_t position = 0;
      for (std::string& drive : LinksOf(body, "Drives")) {
        const size_t at = position++;
        if (reads_ == kMaxReads || !read_.Follow(1)) {
          ++leftOut_;
          continue;
        }
        Queue(next, {std::move(drive), Role::Part, PartKind::Drive, id, nullptr, at});
      }
      Queue(next, {LinkOf(body, "Volumes"), Role::Parts, PartKind::Volume, id, nullptr, 0});
      return;
    }
    case Role::Part:
    case Role::Manager:
      if (found.parts == nullptr) return;
      found.parts->push_back(PartOf(job.kind, body, job.parent, job.position, notes_));
      // A member read by its link is at that link, whatever its body says.
      if (found.parts->back().odataId.empty()) found.parts->back().odataId = job.path;
      if (job.role == Role::Manager && found.firmware != nullptr) {
        const Part& manager = found.parts->back();
        found.firmware->push_back({"BMC", manager.id, manager.name,
                                   JsonText(body, "FirmwareVersion", kMaxText), manager.odataId});
      }
      return;
    case Role::Array:
      if (found.parts != nullptr) {
        PartsOfArray(job.kind, body, job.array, job.parent, *found.parts, notes_);
      }
      return;
    case Role::Update:
      Queue(next, {LinkOf(body, "FirmwareInventory"), Role::Inventory, PartKind::Manager, "",
                   nullptr, 0});
      return;
    case Role::Firmware:
      if (found.firmware == nullptr) return;
      {
        const Part entry = PartOf(PartKind::Manager, body, "", job.position, notes_);
        found.firmware->push_back({"Inventory", entry.id, entry.name,
                                   JsonText(body, "Version", kMaxText), entry.odataId});
      }
      return;
    default:  // a collection, above
      return;
  }
}

void PartWalk::Gap(const std::string& path, const std::string& why) {
  ++gapCount_;
  if (gaps_.size() < kMaxGaps) gaps_.push_back(path + ": " + why);
}

}  // namespace redfish
