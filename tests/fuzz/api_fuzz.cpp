// libFuzzer target: every document a BMC sends, through the exported C
// functions over the link-time HTTP fake. Traps when an exception leaves a C
// function, an unsafe target or a POST body that is not JSON is sent, or a log
// record could span lines.
//
// An input is a run of records, each replacing one document of a healthy BMC:
// slot (1 byte), status (1), flags (1), body length (2, little-endian), body.
#include <rapidjson/document.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "bmcredfish.h"
#include "connection/request_target.h"
#include "platform/feature_state.h"
#include "platform/tessel/logging.h"
#include "tests/fakes/fake_http.h"
#include "tests/fakes/fake_sysinfo.h"

namespace {

// The documents by slot (the numbers tests/fuzz/make-seeds writes), each with
// the end of the target that asks for it; the reset is told by its method.
struct Slot {
  const char* tail;
  const char* body;
  int status;
};
const Slot kSlots[] = {
    {"/bmc/redfish/v1/Systems", R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})", 200},
    {"/?$select=Manufacturer", R"({"Manufacturer":"Dell Inc."})", 200},
    {"/?$select=Actions",
     R"({"Actions":{"#ComputerSystem.Reset":{"target":"/redfish/v1/Systems/1/Reset",)"
     R"("@Redfish.ActionInfo":"/redfish/v1/Systems/1/ResetActionInfo",)"
     R"("ResetType@Redfish.AllowableValues":["On","ForceOff","GracefulRestart"]}}})",
     200},
    {"", R"({"Parameters":[{"AllowableValues":["On","ForceOff"]}]})", 200},  // anything else
    {"/?$select=PowerState", R"({"PowerState":"On"})", 200},
    {"/bmc/redfish/v1/Managers", R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1"}]})", 200},
    {"/EthernetInterfaces", R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1/NICs/1"}]})", 200},
    {"/?$select=MACAddress", R"({"MACAddress":"AA:BB:CC:DD:EE:01"})", 200},
    {"/bmc/redfish/v1/Chassis", R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1"}]})", 200},
    {"/Sensors", R"({"Members":[]})", 200},
    {"?$expand=.($levels=1)", R"({"Members":[{"Reading":41}]})", 200},
    {"", "", 204},  // the reset (POST)
    {"/Thermal", R"({"Temperatures":[{"Name":"T","ReadingCelsius":20}],"Fans":[{"Reading":9}]})",
     200},
    {"/Power", R"({"PowerControl":[{"PowerConsumedWatts":300}]})", 200},
};
constexpr size_t kSlotCount = sizeof kSlots / sizeof kSlots[0];
constexpr size_t kOtherSlot = 3;
constexpr size_t kResetSlot = 11;
constexpr int kStatuses[] = {200, 200, 200, 201, 204, 302, 400, 401, 404, 409, 500, 503};

enum Flags : uint8_t { kNoContentLength = 1, kJunkContentLength = 2, kTransportFailure = 4 };

struct Document {
  int status;
  uint8_t flags = 0;
  std::string body;
};

size_t SlotOf(const fake_http::Request& r) {
  if (r.method == Tessel::Http::Post) return kResetSlot;
  for (size_t i = 0; i < kSlotCount; ++i) {
    const std::string tail = kSlots[i].tail;
    if (!tail.empty() && r.target.size() >= tail.size() &&
        r.target.compare(r.target.size() - tail.size(), tail.size(), tail) == 0) {
      return i;
    }
  }
  return kOtherSlot;
}

fake_http::Reply Answer(const Document& d) {
  if (d.flags & kTransportFailure) {
    switch (d.status % 4) {
      case 0:
        return fake_http::Throw<Tessel::TimeoutException>("t");
      case 1:  // not 110, which is retried until the deadline: slow, and timing
        return fake_http::Throw<Tessel::SystemException>(111, "connection refused");
      case 2:
        return fake_http::Throw<Tessel::InvalidArgumentException>("bad target");
      default:
        return fake_http::Throw<Tessel::Exception>("reset by peer");
    }
  }
  fake_http::Reply reply;
  reply.status = d.status;
  reply.body = d.body;
  if (d.flags & kJunkContentLength) {
    reply.headers.push_back({"content-length", d.body.substr(0, 24)});
  } else if (!(d.flags & kNoContentLength)) {
    reply.headers.push_back({"content-length", std::to_string(d.body.size())});
  }
  reply.headers.push_back({"location", d.body.substr(0, 16)});
  reply.headers.push_back({"retry-after", "1"});
  return reply;
}

void CheckRequest(const fake_http::Request& r) {
  if (redfish::UnsafeRequestTarget(r.target) != nullptr) __builtin_trap();
  if (r.method == Tessel::Http::Post) {
    rapidjson::Document body;
    body.Parse(r.body.c_str());
    if (body.HasParseError()) __builtin_trap();
  }
}

// A text the library hands out is valid JSON.
void CheckJson(int result, char* text) {
  if (result == 0) {
    rapidjson::Document document;
    document.Parse(text);
    if (text == nullptr || document.HasParseError()) __builtin_trap();
  } else if (text != nullptr) {
    __builtin_trap();
  }
  Redfish_FreeText(text);
}

// Every text of the failure record ends inside its field.
void CheckFailure() {
  RedfishFailure f;
  f.size = sizeof f;
  if (Redfish_GetLastFailure(&f) != 0) __builtin_trap();
  if (strnlen(f.method, sizeof f.method) == sizeof f.method ||
      strnlen(f.uri, sizeof f.uri) == sizeof f.uri ||
      strnlen(f.detail, sizeof f.detail) == sizeof f.detail) {
    __builtin_trap();
  }
}

void CheckRecord(const Tessel::Service::Logger&, int, const std::string& message) {
  const std::string record = Tessel::Service::LogRecordText(message);
  if (record.find_first_of("\r\n") != std::string::npos) __builtin_trap();
  if (record.size() > Tessel::Service::kMaxLogRecordBytes + 32) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    FeatureState_Init();
    *GetFeatureState_Slow("REDFISH") = 1;
    fake_sysinfo::SetIpv4(127, 0, 42, 1);
    Tessel::Service::SetLogSink(CheckRecord);
    return true;
  }();
  (void)ready;

  std::array<Document, kSlotCount> bmc;
  for (size_t i = 0; i < kSlotCount; ++i) bmc[i] = {kSlots[i].status, 0, kSlots[i].body};
  for (size_t at = 0; size - at >= 5;) {
    Document& d = bmc[data[at] % kSlotCount];
    d.status = kStatuses[data[at + 1] % (sizeof kStatuses / sizeof kStatuses[0])];
    d.flags = data[at + 2];
    const size_t length = std::min<size_t>(data[at + 3] | (data[at + 4] << 8), size - at - 5);
    d.body.assign(reinterpret_cast<const char*>(data + at + 5), length);
    at += 5 + length;
  }
  fake_http::SetHandler([&bmc](const fake_http::Request& r) {
    if (r.endpoint == "http://localhost:549") {  // the route: not the BMC's to choose
      return fake_http::Json(r.method == Tessel::Http::Get ? 404 : 204, "");
    }
    CheckRequest(r);
    return Answer(bmc[SlotOf(r)]);
  });

  const auto command = static_cast<REDFISHCMD>(size > 0 ? data[0] % 9 : 0);
  try {
    bool on = false;
    Redfish_GetPowerState("admin", "secret", nullptr, 100, &on);
    char mac[32];
    unsigned int length = sizeof mac;
    Redfish_GetMacAddress("admin", "secret", nullptr, nullptr, 100, mac, &length);
    length = 0;
    if (Redfish_GetSensorsInfo("admin", "secret", nullptr, 100, nullptr, &length) == 0) {
      std::string text(length + 1, '\0');
      length = static_cast<unsigned int>(text.size());
      Redfish_GetSensorsInfo("admin", "secret", nullptr, 100, text.data(), &length);
    }
    Redfish_PowerOperation("admin", "secret", nullptr, "AA:BB:CC:DD:EE:01", command, 100);
    Redfish_PowerOperation("admin", "secret", nullptr, "", command, 100);
    CheckFailure();
    char* json = nullptr;
    CheckJson(Redfish_GetSensorReadings("admin", "secret", nullptr, 100, &json), json);
    CheckFailure();
    json = nullptr;
    CheckJson(Redfish_GetResource("admin", "secret", nullptr, "/redfish/v1/Systems/1", 100, &json),
              json);
    unsigned int commands = 0;
    Redfish_GetAllowedCommands("admin", "secret", nullptr, 100, &commands);
    cleanup();
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
