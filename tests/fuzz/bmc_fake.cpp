#include "tests/fuzz/bmc_fake.h"

#include "platform/tessel/exception.h"

namespace bmc_fake {
namespace {

constexpr int kStatuses[] = {200, 200, 200, 201, 204, 302, 400, 401, 404, 409, 500, 503};

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

Bmc::Bmc() {
  documents_[kSystems].body = R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})";
  documents_[kManufacturer].body = R"({"Manufacturer":"Dell Inc."})";
  documents_[kActions].body =
      R"({"Actions":{"#ComputerSystem.Reset":{"target":"/redfish/v1/Systems/1/Actions/ComputerSystem.Reset",)"
      R"("@Redfish.ActionInfo":"/redfish/v1/Systems/1/ResetActionInfo",)"
      R"("ResetType@Redfish.AllowableValues":["On","ForceOff","GracefulRestart"]}}})";
  documents_[kActionInfo].body = R"({"Parameters":[{"AllowableValues":["On","ForceOff"]}]})";
  documents_[kPowerState].body = R"({"PowerState":"On"})";
  documents_[kManagers].body = R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1"}]})";
  documents_[kNics].body =
      R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1/EthernetInterfaces/1"}]})";
  documents_[kMac].body = R"({"MACAddress":"AA:BB:CC:DD:EE:01"})";
  documents_[kChassis].body = R"({"Members":[{"@odata.id":"/redfish/v1/Chassis/1"}]})";
  documents_[kSensorsProbe].body = R"({"Members":[]})";
  documents_[kSensors].body = R"({"Members":[{"Reading":41}]})";
  documents_[kResetAnswer].status = 204;
}

void Bmc::Load(const uint8_t* data, size_t size) {
  size_t at = 0;
  while (size - at >= 5) {
    const uint8_t slot = data[at] % kSlotCount;
    Document& d = documents_[slot];
    d.status = kStatuses[data[at + 1] % (sizeof kStatuses / sizeof kStatuses[0])];
    d.flags = data[at + 2];
    size_t length = data[at + 3] | (static_cast<size_t>(data[at + 4]) << 8);
    at += 5;
    if (length > size - at) length = size - at;
    d.body.assign(reinterpret_cast<const char*>(data + at), length);
    at += length;
  }
}

Slot Bmc::SlotOf(const fake_http::Request& r) {
  if (r.method == Tessel::Http::Post) return kResetAnswer;
  const std::string& t = r.target;
  if (t == "/bmc/redfish/v1/Systems") return kSystems;
  if (t == "/bmc/redfish/v1/Managers") return kManagers;
  if (t == "/bmc/redfish/v1/Chassis") return kChassis;
  if (EndsWith(t, "/?$select=Manufacturer")) return kManufacturer;
  if (EndsWith(t, "/?$select=Actions")) return kActions;
  if (EndsWith(t, "/?$select=PowerState")) return kPowerState;
  if (EndsWith(t, "/?$select=MACAddress")) return kMac;
  if (EndsWith(t, "/EthernetInterfaces")) return kNics;
  if (EndsWith(t, "/Sensors")) return kSensorsProbe;
  if (EndsWith(t, "?$expand=.($levels=1)")) return kSensors;
  return kActionInfo;
}

fake_http::Reply Bmc::Answer(const fake_http::Request& request) const {
  const Document& d = documents_[SlotOf(request)];
  if (d.flags & kTransportFailure) {
    switch (d.status % 4) {
      case 0:
        return fake_http::Throw<Tessel::TimeoutException>("t");
      case 1:
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

}  // namespace bmc_fake
