// libFuzzer target: the health read over the link-time HTTP fake, with any
// document in place of each one a healthy BMC sends, and any previous and
// readings document from the caller. Traps when an exception leaves the C
// function, an unsafe target is sent, the document handed out is not valid
// JSON (UTF-8 checked) or does not come back as a previous document, or the
// read asks the BMC more than its bounds allow.
//
// An input is a run of records: slot (1 byte), status (1), body length (2,
// little-endian), body. Slot 0 is the previous document, 1 the readings.
#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "bmcredfish.h"
#include "connection/request_target.h"
#include "platform/feature_state.h"
#include "platform/tessel/logging.h"
#include "resources/health_document.h"
#include "resources/part_walk.h"
#include "resources/read_context.h"
#include "tests/fakes/fake_http.h"
#include "tests/fakes/fake_sysinfo.h"

namespace {

struct Slot {
  const char* path;  // after "/bmc"; "" for the caller's documents
  const char* body;
};
const Slot kSlots[] = {
    {"", ""},  // previous
    {"", R"({"Chassis":[{"Id":"1","Sensors":[{"Id":"T","Health":"OK"}]}]})"},
    {"/redfish/v1", R"({"ProtocolFeaturesSupported":{"SelectQuery":true,)"
                    R"("ExpandQuery":{"Levels":true,"NoLinks":true,"MaxLevels":1}}})"},
    {"/redfish/v1/Systems", R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})"},
    {"/redfish/v1/Systems/1",
     R"({"Id":"1","PowerState":"On","Status":{"Health":"OK","HealthRollup":"OK"},)"
     R"("Memory":{"@odata.id":"/redfish/v1/Systems/1/Memory"},)"
     R"("Storage":{"@odata.id":"/redfish/v1/Systems/1/Storage"},"BiosVersion":"1"})"},
    {"/redfish/v1/Systems/1/Memory",
     R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1/Memory/A1"}]})"},
    {"/redfish/v1/Systems/1/Memory/A1",
     R"({"Id":"A1","Status":{"State":"Enabled","Health":"OK"}})"},
    {"/redfish/v1/Systems/1/Storage", R"({"Members":[{"Id":"S","Drives":[{"@odata.id":"/d/0"}],)"
                                      R"("StorageControllers":[{"MemberId":"0"}]}]})"},
    {"/d/0", R"({"Id":"0","Status":{"Health":"Critical"}})"},
    {"/redfish/v1/Chassis", R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1"}]})"},
    {"/redfish/v1/Chassis/1", R"({"Id":"1","Power":{"@odata.id":"/p"},)"
                              R"("ThermalSubsystem":{"@odata.id":"/t"}})"},
    {"/p", R"({"PowerSupplies":[{"MemberId":"0","Status":{"Health":"OK"}}]})"},
    {"/t/Fans", R"({"Members":[{"Id":"F","Status":{"Health":"Warning"}}]})"},
    {"/redfish/v1/Managers", R"({"Members":[{"Id":"1","FirmwareVersion":"1","Status":{}}]})"},
    {"/redfish/v1/UpdateService", R"({"FirmwareInventory":{"@odata.id":"/f"}})"},
    {"/f", R"({"Members":[{"Id":"bmc","Version":"1"}]})"},
};
constexpr size_t kSlotCount = sizeof kSlots / sizeof kSlots[0];
constexpr int kStatuses[] = {200, 200, 200, 404, 500, 501, 401};

struct Document {
  int status = 200;
  std::string body;
};

// The path a request asks for, without "/bmc" and the query.
std::string PathOf(const std::string& target) {
  std::string path = target.substr(std::min<size_t>(4, target.size()));
  return path.substr(0, path.find('?'));
}

bool ValidJson(const std::string& text) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(text.c_str());
  return !document.HasParseError();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    FeatureState_Init();
    *GetFeatureState_Slow("REDFISH") = 1;
    fake_sysinfo::SetIpv4(127, 0, 42, 1);
    Tessel::Service::SetLogSink([](const Tessel::Service::Logger&, int, const std::string&) {});
    return true;
  }();
  (void)ready;

  std::array<Document, kSlotCount> docs;
  for (size_t i = 0; i < kSlotCount; ++i) docs[i].body = kSlots[i].body;
  for (size_t at = 0; size - at >= 4;) {
    Document& d = docs[data[at] % kSlotCount];
    d.status = kStatuses[data[at + 1] % (sizeof kStatuses / sizeof kStatuses[0])];
    const size_t length = std::min<size_t>(data[at + 2] | (data[at + 3] << 8), size - at - 4);
    d.body.assign(reinterpret_cast<const char*>(data + at + 4), length);
    at += 4 + length;
  }
  size_t requests = 0;
  fake_http::SetHandler([&docs, &requests](const fake_http::Request& r) {
    if (r.endpoint == "http://localhost:549") {
      return fake_http::Json(r.method == Tessel::Http::Get ? 404 : 204, "");
    }
    if (redfish::UnsafeRequestTarget(r.target) != nullptr) __builtin_trap();
    ++requests;
    const std::string path = PathOf(r.target);
    for (size_t i = 2; i < kSlotCount; ++i) {
      if (path == kSlots[i].path) return fake_http::Json(docs[i].status, docs[i].body);
    }
    return fake_http::Json(404, "{}");
  });

  try {
    char* json = nullptr;
    const int result = Redfish_GetHealth("admin", "secret", nullptr, 1000, docs[0].body.c_str(),
                                         docs[1].body.c_str(), &json);
    if (result == 0) {
      const std::string text = json != nullptr ? json : "";
      redfish::HealthReport back;
      if (!ValidJson(text) || !redfish::ParseHealthDocument(text, back)) __builtin_trap();
    } else if (json != nullptr) {
      __builtin_trap();
    }
    Redfish_FreeText(json);
    // The root, the systems' collection and each system (the read's bound on
    // members), then the managers, the walk and the firmware, each bounded.
    if (requests > 2 + redfish::ReadContext::kMaxMembers + 3 * redfish::PartWalk::kMaxReads) {
      __builtin_trap();
    }
    cleanup();
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
