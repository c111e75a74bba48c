#include "resources/read_context.h"

#include <algorithm>

#include "platform/tessel/http.h"
#include "resources/inventory.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kServiceRoot[] = "/redfish/v1";

bool Flag(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value* value = JsonMember(object, name);
  return value != nullptr && value->IsBool() && value->GetBool();
}

// The options a service root advertises (ProtocolFeaturesSupported).
QueryFeatures FeaturesOf(const rapidjson::Value& root) {
  QueryFeatures f;
  const rapidjson::Value* supported = JsonMember(root, "ProtocolFeaturesSupported");
  if (supported == nullptr || !supported->IsObject()) return f;
  f.select = Flag(*supported, "SelectQuery");
  f.topSkip = Flag(*supported, "TopSkipQuery");
  const rapidjson::Value* expand = JsonMember(*supported, "ExpandQuery");
  // The reads expand with ".($levels=N)": the service must take levels.
  if (expand != nullptr && expand->IsObject() && Flag(*expand, "Levels")) {
    const rapidjson::Value* max = JsonMember(*expand, "MaxLevels");
    f.expand = Flag(*expand, "NoLinks") || Flag(*expand, "ExpandAll");
    f.expandMaxLevels = max != nullptr && max->IsUint() && max->GetUint() > 0 ? max->GetUint() : 1;
  }
  return f;
}

bool& Usable(QueryFeatures& f, QueryOption option) {
  static constexpr bool QueryFeatures::*kUsable[] = {&QueryFeatures::select,
                                                     &QueryFeatures::expand};
  return f.*kUsable[static_cast<size_t>(option)];
}

}  // namespace

ReadContext::ReadContext(Inventory& inventory, milliseconds budget)
    : inventory_(inventory), deadline_(Clock::now() + budget), budget_(budget) {}

milliseconds ReadContext::Left() const {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline_ - Clock::now());
  return std::max(left, milliseconds(0));
}

int ReadContext::Spent() {
  NoteFailure(
      REDFISH_LINK_BMC, RedfishStatusTimeout,
      Tessel::Detail::ASPrintInternal("the read's whole time-out of %1 ms passed after %2 requests",
                                      budget_.count(), requests_));
  return RedfishStatusTimeout;
}

int ReadContext::Features(QueryFeatures& features) {
  ReadMemory& memory = inventory_.memory;
  {
    std::lock_guard<std::mutex> lock(memory.mutex);
    if (memory.featuresKnown) {
      features = memory.features;
      return RedfishStatusOk;
    }
  }
  Fetched root;
  const int result = Get(kServiceRoot, root);
  if (result == RedfishStatusTimeout && Left().count() == 0) return result;
  QueryFeatures read;
  if (result == RedfishStatusOk) read = FeaturesOf(root.document);
  std::lock_guard<std::mutex> lock(memory.mutex);
  // A root that cannot be read advertises nothing, and is not asked again.
  if (!memory.featuresKnown) {
    memory.features = read;
    memory.featuresKnown = true;
  }
  features = memory.features;
  return RedfishStatusOk;
}

int ReadContext::Get(const std::string& path, Fetched& fetched) {
  std::vector<std::unique_ptr<Fetched>> out;
  GetAll({path}, out);
  fetched.result = out[0]->result;
  fetched.path = std::move(out[0]->path);
  fetched.body = std::move(out[0]->body);
  fetched.document.Swap(out[0]->document);
  return fetched.result;
}

int ReadContext::GetAll(const std::vector<std::string>& paths,
                        std::vector<std::unique_ptr<Fetched>>& out) {
  out.clear();
  for (const std::string& path : paths) {
    out.push_back(std::make_unique<Fetched>());
    out.back()->path = path;
    out.back()->result = RedfishStatusTimeout;
  }
  const milliseconds left = Left();
  if (left.count() == 0) return paths.empty() ? RedfishStatusOk : Spent();
  BmcRequests& requests = inventory_.Requests();
  std::vector<std::string> targets;
  targets.reserve(paths.size());
  for (const std::string& path : paths) targets.push_back(inventory_.BaseUrl() + path);
  std::vector<int> results;
  std::vector<std::string> bodies;
  requests.GetConcurrently(targets, kMaxInFlight, left, results, bodies);
  requests_ += paths.size();
  int first = RedfishStatusOk;
  for (size_t i = 0; i < paths.size(); ++i) {
    Fetched& f = *out[i];
    f.result = results[i];
    f.body = std::move(bodies[i]);
    if (f.result == RedfishStatusOk) ParseJson(f.document, f.body);
    if (first == RedfishStatusOk) first = f.result;
  }
  // An answer that came only as the budget ran out is the budget's failure.
  if (first == RedfishStatusTimeout && Left().count() == 0) return Spent();
  return first;
}

int ReadContext::GetWithQuery(const std::string& path, QueryOption option, const std::string& query,
                              Fetched& fetched, bool& applied) {
  applied = false;
  QueryFeatures features;
  int result = Features(features);
  if (result != RedfishStatusOk) return result;
  if (Usable(features, option)) {
    const char joint = path.find('?') == std::string::npos ? '?' : '&';
    result = Get(path + joint + query, fetched);
    if (result != Tessel::Http::ResponseCode::NotImplemented &&
        result != Tessel::Http::ResponseCode::BadRequest) {
      applied = true;
      return result;
    }
    // The BMC advertised what it does not take: read plainly from now on.
    TESSEL_LOG(inventory_.Logger(), 3, "GET %1: the BMC answered %2 to its query; reading %3",
               path + joint + query, result, path);
    std::lock_guard<std::mutex> lock(inventory_.memory.mutex);
    Usable(inventory_.memory.features, option) = false;
  }
  return Get(path, fetched);
}

bool ReadContext::Follow(size_t count) {
  if (count > kMaxMembers - std::min(members_, kMaxMembers)) return false;
  members_ += count;
  return true;
}

std::string ReadContext::Bounded(const std::string& what) {
  return Tessel::Detail::ASPrintInternal("%1 lists more than the %2 members a read follows", what,
                                         kMaxMembers);
}

}  // namespace redfish
