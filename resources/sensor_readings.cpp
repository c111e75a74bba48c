#include "resources/sensor_readings.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <unordered_set>

#include "platform/tessel/http.h"
#include "resources/documents.h"
#include "resources/inventory.h"
#include "resources/read_context.h"
#include "resources/readings_merge.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

// What a GET of a walk is for.
enum class Step : uint8_t {
  Chassis,
  SensorCollection,       // members: Sensors
  ThermalSubsystem,       // links: ThermalMetrics, Fans
  PowerSubsystem,         // link: PowerSupplies
  FanCollection,          // members: Fans
  PowerSupplyCollection,  // members: power supplies
  PowerSupply,            // link: Metrics
  Source,                 // a document of readings itself
  ExpandedChassis,        // a later read's: a chassis' Thermal, Power, EnvironmentMetrics inline
};

struct ReadingsPlan {
  struct Get {
    Step step;
    SourceKind kind;  // of a Source
    size_t chassis;
    std::string path;  // "/redfish/v1/...", without a query
  };
  std::chrono::steady_clock::time_point made;
  std::vector<ChassisOfReadings> chassis;
  std::vector<Get> gets;            // those whose documents gave the readings, in walk order
  std::vector<std::string> logged;  // notes already logged
};

namespace {

using Get = ReadingsPlan::Get;
using Value = rapidjson::Value;
using Clock = std::chrono::steady_clock;

constexpr char kChassis[] = "/redfish/v1/Chassis";
constexpr char kExpand[] = "$expand=.($levels=1)";
// A plan only knows the sensors that were there: one added later (a supply
// plugged in) shows within the hour.
constexpr auto kPlanLifetime = std::chrono::hours(1);

bool IsCollection(Step step) {
  return step == Step::SensorCollection || step == Step::FanCollection ||
         step == Step::PowerSupplyCollection;
}

// The documents a chassis links that one expanded GET of it can bring inline.
constexpr struct {
  const char* link;
  SourceKind kind;
} kInlined[] = {{"EnvironmentMetrics", SourceKind::EnvironmentMetrics},
                {"Thermal", SourceKind::Thermal},
                {"Power", SourceKind::Power}};

bool Inlinable(const Get& get) {
  if (get.step != Step::Source) return false;
  for (const auto& i : kInlined) {
    if (get.kind == i.kind) return true;
  }
  return false;
}

// What a failed GET means for the read: the resource's own failure (a member
// that is a link to nowhere, an unsafe id) leaves it out; one of the way to
// the BMC (transport, credentials, the proxy, a busy BMC) fails the read.
bool LeftOut(int result) {
  using Code = Tessel::Http::ResponseCode;
  if (result == RedfishStatusInvalidArgument) return true;
  return result > 0 && result < 1000 && result != Code::BadGateway &&
         result != Code::ServiceUnavailable && result != Code::GatewayTimeout;
}

// A link of a document: a path under "/redfish/v1/", else "" (noted).
std::string Link(const Value& document, const char* name, const std::string& where,
                 ReadNotes& notes) {
  const Value* member = JsonMember(document, name);
  if (member == nullptr || !member->IsObject()) return "";
  std::string link;
  if (!JsonString(*member, "@odata.id", link)) return "";
  link = TrimmedUri(link);
  if (link.rfind("/redfish/v1/", 0) != 0) {
    notes.Add(where + ": " + name + " links outside the service: " + link);
    return "";
  }
  return link;
}

class Walk {
 public:
  explicit Walk(ReadContext& read) : read_(read) {}

  // The first read: from the Chassis collection down.
  int Discover(std::string& document, std::shared_ptr<const ReadingsPlan>& plan) {
    int result = read_.Features(features_);
    if (result != RedfishStatusOk) return result;
    std::vector<std::string> ids;
    result = ChassisIds(ids);
    if (result != RedfishStatusOk) return result;
    std::vector<Get> wants;
    wants.reserve(ids.size());
    for (const std::string& id : ids) wants.push_back({Step::Chassis, SourceKind::Sensor, 0, id});
    while (!wants.empty()) {
      std::vector<Get> next;
      result = Round(wants, next);
      if (result != RedfishStatusOk) return result;
      wants = std::move(next);
    }
    std::vector<bool> used;
    result = Merge(document, used);
    if (result != RedfishStatusOk) return result;
    auto made = std::make_shared<ReadingsPlan>();
    made->made = Clock::now();
    made->chassis = chassis_;
    for (size_t g = 0; g < fetched_.size(); ++g) {
      bool gave = false;
      for (size_t d = 0; d < documents_.size(); ++d) gave = gave || (origin_[d] == g && used[d]);
      if (gave) made->gets.push_back(fetched_[g]);
    }
    if (features_.expand) Inline(made->gets);
    made->logged = notes_.kept;
    plan = std::move(made);
    return RedfishStatusOk;
  }

  // A later read: the plan's documents again. stale: they no longer hold
  // what they held (the read should walk anew).
  int Repeat(const ReadingsPlan& plan, std::string& document, bool& stale) {
    stale = false;
    int result = read_.Features(features_);
    if (result != RedfishStatusOk) return result;
    chassis_ = plan.chassis;
    std::vector<std::unique_ptr<Fetched>> got;
    result = Fetch(plan.gets, got);
    if (result != RedfishStatusOk) return result;
    for (size_t i = 0; i < got.size(); ++i) {
      const Fetched& f = *got[i];
      if (f.result != RedfishStatusOk && !LeftOut(f.result)) return f.result;
      if (f.result != RedfishStatusOk || f.document.HasParseError() || !f.document.IsObject()) {
        Stale(plan.gets[i].path, f.result);
        stale = true;
        return RedfishStatusOk;
      }
      std::vector<Get> links;
      Taking(plan.gets[i]);
      result = Take(plan.gets[i], f.document, links);
      if (result != RedfishStatusOk) return result;
      if (!links.empty()) {
        Stale(plan.gets[i].path, f.result);
        stale = true;
        return RedfishStatusOk;
      }
      kept_.push_back(std::move(got[i]));
    }
    std::vector<bool> used;
    result = Merge(document, used, &plan.logged);
    if (result == RedfishStatusNoMember) {
      stale = true;
      return RedfishStatusOk;
    }
    return result;
  }

 private:
  int ChassisIds(std::vector<std::string>& ids) {
    Fetched collection;
    int result = read_.Get(kChassis, collection);
    if (result == Tessel::Http::ResponseCode::NotFound) {
      NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusNoMember,
                  "the BMC has no Chassis collection (404)");
      return RedfishStatusNoMember;
    }
    if (result != RedfishStatusOk) return result;
    if (collection.document.HasParseError()) return RedfishStatusBadJson;
    result = MemberIds(collection.document, ids);
    if (result != RedfishStatusOk) return result;
    if (!read_.Follow(ids.size())) return Bounded(kChassis);
    for (std::string& id : ids) id = TrimmedUri(id);
    return RedfishStatusOk;
  }

  int Bounded(const std::string& what) {
    NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusUnexpectedJson, ReadContext::Bounded(what));
    return RedfishStatusUnexpectedJson;
  }

  // GETs each want, at most four at once, collections expanded where the BMC
  // takes it; one that refuses the query is asked plainly, and not again.
  int Fetch(const std::vector<Get>& wants, std::vector<std::unique_ptr<Fetched>>& got) {
    std::vector<std::string> paths;
    std::vector<size_t> expanded;
    for (size_t i = 0; i < wants.size(); ++i) {
      paths.push_back(wants[i].path);
      if (features_.expand &&
          (IsCollection(wants[i].step) || wants[i].step == Step::ExpandedChassis)) {
        paths.back() += std::string("?") + kExpand;
        expanded.push_back(i);
      }
    }
    read_.GetAll(paths, got);
    std::vector<size_t> refused;
    for (size_t i : expanded) {
      const int r = got[i]->result;
      if (r == Tessel::Http::ResponseCode::NotImplemented ||
          r == Tessel::Http::ResponseCode::BadRequest) {
        refused.push_back(i);
      }
    }
    if (!refused.empty()) {
      TESSEL_LOG(read_.Of().Logger(), 3, "GET %1: the BMC answered %2 to its query; reading %3",
                 paths[refused[0]], got[refused[0]]->result, wants[refused[0]].path);
      {
        std::lock_guard<std::mutex> lock(read_.Of().memory.mutex);
        read_.Of().memory.features.expand = false;
      }
      features_.expand = false;
      std::vector<std::string> plain;
      plain.reserve(refused.size());
      for (size_t i : refused) plain.push_back(wants[i].path);
      std::vector<std::unique_ptr<Fetched>> again;
      read_.GetAll(plain, again);
      for (size_t k = 0; k < refused.size(); ++k) got[refused[k]] = std::move(again[k]);
    }
    if (read_.Left().count() == 0) {
      for (const auto& f : got) {
        if (f->result == RedfishStatusTimeout) return RedfishStatusTimeout;
      }
    }
    return RedfishStatusOk;
  }

  // One round of the walk: the wants' answers, and what they link to next.
  int Round(const std::vector<Get>& wants, std::vector<Get>& next) {
    std::vector<Get> fresh;
    for (const Get& want : wants) {
      if (visited_.insert(want.path).second) {
        fresh.push_back(want);
      } else if (want.step != Step::Chassis) {
        notes_.Add(want.path + ": linked again (a loop); read once");
      }
    }
    std::vector<std::unique_ptr<Fetched>> got;
    int result = Fetch(fresh, got);
    if (result != RedfishStatusOk) return result;
    for (size_t i = 0; i < fresh.size(); ++i) {
      const Fetched& f = *got[i];
      if (f.result != RedfishStatusOk) {
        if (!LeftOut(f.result)) return f.result;
        notes_.Add(fresh[i].path + ": answered " + std::to_string(f.result));
        if (f.result != Tessel::Http::ResponseCode::NotFound) Failed(f.result, fresh[i].path);
        continue;
      }
      if (f.document.HasParseError() || !f.document.IsObject()) {
        notes_.Add(fresh[i].path + ": the answer is not a JSON object");
        Failed(RedfishStatusUnexpectedJson, fresh[i].path);
        continue;
      }
      Taking(fresh[i]);
      if (fresh[i].step == Step::Chassis) {
        Chassis(fresh[i].path, f.document, next);
      } else {
        result = Take(fresh[i], f.document, next);
        if (result != RedfishStatusOk) return result;
      }
      kept_.push_back(std::move(got[i]));
    }
    return RedfishStatusOk;
  }

  void Chassis(const std::string& path, const Value& d, std::vector<Get>& next) {
    std::string id;
    if (!JsonString(d, "Id", id) || id.empty()) id = LastSegment(path);
    const size_t c = chassis_.size();
    chassis_.push_back({id, path, {}});
    const struct {
      const char* link;
      Step step;
      SourceKind kind;
    } kLinks[] = {
        {"Sensors", Step::SensorCollection, SourceKind::Sensor},
        {"ThermalSubsystem", Step::ThermalSubsystem, SourceKind::Sensor},
        {"PowerSubsystem", Step::PowerSubsystem, SourceKind::Sensor},
        {"EnvironmentMetrics", Step::Source, SourceKind::EnvironmentMetrics},
        {"Thermal", Step::Source, SourceKind::Thermal},
        {"Power", Step::Source, SourceKind::Power},
    };
    for (const auto& l : kLinks) {
      const std::string link = Link(d, l.link, path, notes_);
      if (!link.empty()) next.push_back({l.step, l.kind, c, link});
    }
  }

  // What an answer holds: documents of readings, facts of the newer models,
  // and the links to read next.
  int Take(const Get& want, const Value& d, std::vector<Get>& next) {
    const size_t c = want.chassis;
    NewerModels& newer = chassis_[c].newer;
    switch (want.step) {
      case Step::Chassis:
        break;
      case Step::SensorCollection:
        return Members(want, d, SourceKind::Sensor, next);
      case Step::FanCollection:
        return Members(want, d, SourceKind::Fan, next);
      case Step::PowerSupplyCollection:
        return Members(want, d, SourceKind::Sensor, next);
      case Step::ThermalSubsystem: {
        std::string link = Link(d, "ThermalMetrics", want.path, notes_);
        if (!link.empty()) next.push_back({Step::Source, SourceKind::ThermalMetrics, c, link});
        link = Link(d, "Fans", want.path, notes_);
        if (!link.empty()) next.push_back({Step::FanCollection, SourceKind::Fan, c, link});
        break;
      }
      case Step::PowerSubsystem: {
        const std::string link = Link(d, "PowerSupplies", want.path, notes_);
        if (!link.empty())
          next.push_back({Step::PowerSupplyCollection, SourceKind::Sensor, c, link});
        break;
      }
      case Step::PowerSupply:
        return Supply(c, want.path, d, next);
      case Step::ExpandedChassis:
        for (const auto& i : kInlined) {
          const Value* member = JsonMember(d, i.link);
          if (member == nullptr || !member->IsObject()) continue;
          std::string link = Link(d, i.link, want.path, notes_);
          if (link.empty()) link = want.path + "/" + i.link;
          if (member->MemberCount() > 1) {
            Add(i.kind, c, link, *member);
          } else {
            next.push_back({Step::Source, i.kind, c, link});  // not expanded after all
          }
        }
        break;
      case Step::Source:
        if (want.kind == SourceKind::ThermalMetrics) {
          const Value* t = JsonMember(d, "TemperatureReadingsCelsius");
          newer.temperatures = newer.temperatures || (t != nullptr && t->IsArray() && !t->Empty());
        }
        if (want.kind == SourceKind::EnvironmentMetrics) {
          const Value* p = JsonMember(d, "PowerWatts");
          newer.chassisPower = newer.chassisPower || (p != nullptr && p->IsObject());
        }
        Add(want.kind, c, want.path, d);
        break;
    }
    return RedfishStatusOk;
  }

  // A collection's members: those inline are read where they stand, the
  // links are read next. Fans and supplies listed tell that the chassis has
  // the newer models of them.
  int Members(const Get& want, const Value& d, SourceKind kind, std::vector<Get>& next) {
    const Value* members = JsonMember(d, "Members");
    if (members == nullptr || !members->IsArray()) {
      notes_.Add(want.path + ": no Members array");
      return RedfishStatusOk;
    }
    if (!read_.Follow(members->Size())) return Bounded(want.path);
    NewerModels& newer = chassis_[want.chassis].newer;
    if (want.step == Step::FanCollection) newer.fans = newer.fans || !members->Empty();
    const bool supplies = want.step == Step::PowerSupplyCollection;
    if (supplies) newer.powerSupplies = newer.powerSupplies || !members->Empty();
    for (const Value& member : members->GetArray()) {
      std::string link;
      if (!member.IsObject() || !JsonString(member, "@odata.id", link)) {
        notes_.Add(want.path + ": a member without an @odata.id");
        continue;
      }
      link = TrimmedUri(link);
      if (member.MemberCount() > 1) {
        if (supplies) {
          const int result = Supply(want.chassis, link, member, next);
          if (result != RedfishStatusOk) return result;
        } else {
          Add(kind, want.chassis, link, member);
        }
      } else if (link.rfind("/redfish/v1/", 0) == 0) {
        next.push_back({supplies ? Step::PowerSupply : Step::Source, kind, want.chassis, link});
      } else {
        notes_.Add(want.path + ": a member outside the service: " + link);
      }
    }
    return RedfishStatusOk;
  }

  int Supply(size_t chassis, const std::string& path, const Value& d, std::vector<Get>& next) {
    const std::string link = Link(d, "Metrics", path, notes_);
    if (!link.empty()) {
      next.push_back({Step::Source, SourceKind::PowerSupplyMetrics, chassis, link});
    }
    return RedfishStatusOk;
  }

  // Where a chassis' plan reads two or more of the documents it links, one
  // expanded GET of the chassis brings them (a BMC without Sensors, such as
  // one with only Thermal and Power, is then read in one request).
  void Inline(std::vector<Get>& gets) const {
    for (size_t c = 0; c < chassis_.size(); ++c) {
      auto mine = [c](const Get& g) { return g.chassis == c && Inlinable(g); };
      const auto first = std::find_if(gets.begin(), gets.end(), mine);
      if (std::count_if(gets.begin(), gets.end(), mine) < 2) continue;
      *first = {Step::ExpandedChassis, SourceKind::Sensor, c, chassis_[c].odataId};
      gets.erase(std::remove_if(first + 1, gets.end(), mine), gets.end());
    }
  }

  // The GET whose answer is being taken.
  void Taking(const Get& get) { fetched_.push_back(get); }

  // A document of readings, from the GET being taken.
  void Add(SourceKind kind, size_t chassis, const std::string& path, const Value& d) {
    documents_.push_back({kind, chassis, path, &d});
    origin_.push_back(fetched_.size() - 1);
  }

  int Merge(std::string& document, std::vector<bool>& used,
            const std::vector<std::string>* logged = nullptr) {
    std::vector<ChassisReadings> out;
    MergeReadings(chassis_, documents_, out, used, notes_);
    Log(logged);
    if (out.empty() && failed_ != RedfishStatusOk) {
      // Nothing to show, and something that should have been there failed:
      // that is the cause, not an empty BMC.
      NoteFailure(failed_ < 1000 ? REDFISH_LINK_BMC : REDFISH_LINK_DOCUMENT, failed_,
                  "no readings: " + failedPath_ + " answered " + std::to_string(failed_));
      return failed_;
    }
    if (out.empty()) {
      NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusNoMember,
                  "no chassis holds readings (Sensors, ThermalSubsystem, PowerSubsystem, "
                  "EnvironmentMetrics, Thermal or Power)");
      return RedfishStatusNoMember;
    }
    document = ReadingsDocument(out);
    return RedfishStatusOk;
  }

  // What was left out, once: a later read logs only what is new.
  void Log(const std::vector<std::string>* logged) {
    Tessel::Service::Logger* logger = read_.Of().Logger();
    for (const std::string& note : notes_.kept) {
      if (logged != nullptr && std::find(logged->begin(), logged->end(), note) != logged->end()) {
        continue;
      }
      TESSEL_LOG(logger, 3, "Sensor readings: left out %1", note);
    }
    if (notes_.more > 0 && logged == nullptr) {
      TESSEL_LOG(logger, 3, "Sensor readings: left out %1 more", notes_.more);
    }
  }

  // The first document that failed other than by not being there.
  void Failed(int result, const std::string& path) {
    if (failed_ != RedfishStatusOk) return;
    failed_ = result;
    failedPath_ = path;
  }

  void Stale(const std::string& path, int result) {
    TESSEL_LOG(read_.Of().Logger(), 3,
               "Sensor readings: %1 answered %2 or changed shape; finding the readings anew", path,
               result);
  }

  ReadContext& read_;
  QueryFeatures features_;
  std::vector<ChassisOfReadings> chassis_;
  std::vector<Get> fetched_;
  std::vector<std::unique_ptr<Fetched>> kept_;
  std::vector<SourceDocument> documents_;
  std::vector<size_t> origin_;  // the index in fetched_ of each document's GET
  std::unordered_set<std::string> visited_;
  ReadNotes notes_;
  int failed_ = RedfishStatusOk;
  std::string failedPath_;
};

}  // namespace

int ReadSensorReadings(ReadContext& read, std::string& document) {
  ReadMemory& memory = read.Of().memory;
  std::shared_ptr<const ReadingsPlan> plan;
  {
    std::lock_guard<std::mutex> lock(memory.mutex);
    plan = memory.readings;
  }
  if (plan && Clock::now() - plan->made < kPlanLifetime) {
    bool stale = false;
    const int result = Walk(read).Repeat(*plan, document, stale);
    if (!stale) return result;
  }
  std::shared_ptr<const ReadingsPlan> made;
  const int result = Walk(read).Discover(document, made);
  std::lock_guard<std::mutex> lock(memory.mutex);
  memory.readings = result == RedfishStatusOk ? made : nullptr;
  return result;
}

}  // namespace redfish
