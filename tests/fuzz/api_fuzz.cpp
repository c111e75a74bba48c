// libFuzzer target: every document a BMC sends, through the exported C
// functions over the link-time HTTP fake. Traps when an exception leaves a C
// function, an unsafe target or a body that is not JSON is sent, or a log
// record could span lines.
#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "bmcredfish.h"
#include "connection/request_target.h"
#include "platform/feature_state.h"
#include "platform/tessel/logging.h"
#include "tests/fakes/fake_sysinfo.h"
#include "tests/fuzz/bmc_fake.h"

namespace {

void CheckRequest(const fake_http::Request& r) {
  if (r.endpoint == "http://localhost:549") return;  // the route, not the BMC's data
  if (redfish::UnsafeRequestTarget(r.target) != nullptr) __builtin_trap();
  if (r.method == Tessel::Http::Post) {
    rapidjson::Document body;
    body.Parse(r.body.c_str());
    if (body.HasParseError()) __builtin_trap();
  }
}

void CheckRecord(const Tessel::Service::Logger&, int, const std::string& message) {
  const std::string record = Tessel::Service::LogRecordText(message);
  if (record.find('\n') != std::string::npos || record.find('\r') != std::string::npos) {
    __builtin_trap();
  }
  if (record.size() > Tessel::Service::kMaxLogRecordBytes + 32) __builtin_trap();
}

void Setup() {
  FeatureState_Init();
  *GetFeatureState_Slow("REDFISH") = 1;
  fake_sysinfo::SetIpv4(127, 0, 42, 1);
  Tessel::Service::SetLogSink(CheckRecord);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = (Setup(), true);
  (void)ready;
  bmc_fake::Bmc bmc;
  bmc.Load(data, size);
  const REDFISHCMD command = static_cast<REDFISHCMD>(size > 0 ? data[0] % 9 : 0);
  fake_http::SetHandler([&bmc](const fake_http::Request& r) {
    if (r.endpoint == "http://localhost:549") {
      return fake_http::Json(r.method == Tessel::Http::Get ? 404 : 204, "");
    }
    CheckRequest(r);
    return bmc.Answer(r);
  });
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
    cleanup();
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
