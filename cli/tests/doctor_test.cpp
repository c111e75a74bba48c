// redfishctl doctor against canned answers: the walk stops at the first
// broken link, a failure is told at the link that broke, and nothing a BMC
// sends reaches the terminal raw or makes the JSON invalid.
#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "doctor.h"
#include "doctor_probe.h"

namespace {

RedfishFailure Record(int result, RedfishLink link, int httpStatus = 0, const char* detail = "") {
  RedfishFailure f{};
  f.size = sizeof f;
  f.result = result;
  f.link = link;
  f.httpStatus = httpStatus;
  std::snprintf(f.method, sizeof f.method, "GET");
  std::snprintf(f.uri, sizeof f.uri, "/bmc/redfish/v1");
  std::snprintf(f.detail, sizeof f.detail, "%s", detail);
  return f;
}

struct Answer {
  int result = 0;
  std::string text;
  RedfishFailure failure{};
};

Answer Failing(const RedfishFailure& f) { return {f.result, "", f}; }

std::string RouteTo(const char* address) {
  return std::string(R"({"proxy_configuration":{"clusters":[{"endpoints":[{"socket_address":)") +
         R"({"address":")" + address + R"(","port_value":443}}]}]}})";
}

// A healthy Dell BMC behind a healthy proxy, until a test breaks something.
class FakeProbe : public DoctorProbe {
 public:
  FakeProbe() {
    SMBIOS_HostInterface record{};
    record.interfaceType = SMBIOS_INTERFACE_NETWORK;
    record.hasRedfish = true;
    record.redfish.deviceType = 0x02;
    record.redfish.discoveryType = 1;
    record.redfish.addressFormat = SMBIOS_ADDRESS_FORMAT_IPV4;
    const uint8_t address[] = {127, 0, 42, 1};
    std::copy(address, address + 4, record.redfish.address);
    record.redfish.port = 443;
    interfaces.found = {record};
    interfaces.count = 1;
    route.status = 200;
    route.text = RouteTo("127.0.42.1");
  }

  HostInterfaces interfaces;
  RouteRead route;
  std::map<std::string, Answer> answers = {
      {"/redfish/v1", {0, R"({"RedfishVersion":"1.13.1","Vendor":"Dell"})"}},
      {"/redfish/v1/Systems", {0, R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})"}},
      {"/redfish/v1/Systems/1", {0, R"({"Manufacturer":"Dell Inc."})"}},
      {"/redfish/v1/Managers", {0, R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1"}]})"}},
      {"/redfish/v1/Chassis", {0, R"({"Members":[{},{}]})"}},
      {"commands", {}},
      {"power", {0, "on"}},
      {"mac", {0, "b0:7b:25:e4:1f:6a"}},
      {"sensors", {0, R"({"Chassis":[{"Sources":["Sensors"],"Sensors":[{"Name":"a"}]}]})"}},
  };
  std::vector<std::string> calls;  // the library calls made, in order

  HostInterfaces ReadHostInterfaces() override { return interfaces; }
  RouteRead ReadRoute() override { return route; }
  int GetResource(const std::string& path, std::string& body) override { return Give(path, body); }
  int GetAllowedCommands(unsigned int& bits) override {
    bits = (1u << REDFISHCMD_ON) | (1u << REDFISHCMD_NMI);
    std::string unused;
    return Give("commands", unused);
  }
  int GetPowerState(bool& on) override {
    std::string state;
    const int rc = Give("power", state);
    on = state == "on";
    return rc;
  }
  int GetMac(std::string& text) override { return Give("mac", text); }
  int GetSensorReadings(std::string& json) override { return Give("sensors", json); }
  RedfishFailure LastFailure(int result) override {
    EXPECT_EQ(result, answers[calls.back()].result);
    return answers[calls.back()].failure;
  }

 private:
  int Give(const std::string& call, std::string& text) {
    calls.push_back(call);
    text = answers[call].text;
    return answers[call].result;
  }
};

struct Walk {
  int status;
  std::string out;
};

Walk Doctor(FakeProbe& probe, bool json = false, bool fixRoute = false) {
  char* buffer = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buffer, &size);
  const DoctorOptions options{"admin", "secret", "", json, fixRoute};
  const int status = RunDoctor(
      options, probe, [](const char*) {}, out);
  std::fclose(out);
  Walk walk{status, std::string(buffer, size)};
  std::free(buffer);
  return walk;
}

}  // namespace

TEST(Doctor, NothingIsAskedPastTheFirstBrokenLinkATimeOutIncluded) {
  FakeProbe probe;
  probe.answers["power"] = Failing(Record(REDFISH_ERR_TIMEOUT, REDFISH_LINK_BMC, 0, "timed out"));
  const Walk walk = Doctor(probe);
  EXPECT_EQ(walk.status, 1);
  EXPECT_EQ(probe.calls.back(), "power") << "the MAC or the sensors were asked after the time-out";
  EXPECT_NE(walk.out.find("\npower-state      FAIL  GET /bmc/redfish/v1: timed out\n"
                          "                       check: raise --timeout;"),
            std::string::npos)
      << walk.out;
  EXPECT_NE(walk.out.find("\nmac              skip\nsensors          skip\nreset-types      skip\n"
                          "doctor: broken: power-state ("),
            std::string::npos);
}

TEST(Doctor, OneReadOfTheServiceRootServesTheLinksUpToTheCredentials) {
  // Asked to, doctor lets the library's first call rewrite another BMC's route;
  // that call's read of the service root serves the next links.
  FakeProbe probe;
  probe.route.text = RouteTo("127.0.42.9");
  EXPECT_EQ(Doctor(probe).status, 1);
  probe.calls.clear();
  const Walk fixed = Doctor(probe, false, true);
  EXPECT_EQ(fixed.status, 0) << fixed.out;
  EXPECT_NE(fixed.out.find("\nroute-document   ok    the library rewrote it to name 127.0.42.1 "
                           "(it named 127.0.42.9)\n"),
            std::string::npos);
  EXPECT_EQ(std::count(probe.calls.begin(), probe.calls.end(), "/redfish/v1"), 1);

  // A link before the proxy that broke inside the library is told at the
  // proxy, with advice that holds where redfishctl is installed.
  probe.route.text = RouteTo("127.0.42.1");
  probe.answers["/redfish/v1"] = Failing(Record(30001, REDFISH_LINK_SMBIOS));
  const Walk walk = Doctor(probe);
  EXPECT_NE(walk.out.find("\ndoctor: broken: proxy ("), std::string::npos) << walk.out;
  EXPECT_NE(walk.out.find("check: redfishctl doctor shows the host interface record; run on a "
                          "host with a Redfish host interface"),
            std::string::npos);
  EXPECT_EQ(walk.out.find("host-sim"), std::string::npos) << "not installed with redfishctl";
}

TEST(Doctor, TheBmcsTextsReachNeitherTerminalNorJsonRaw) {
  FakeProbe probe;
  probe.answers["/redfish/v1"].text = R"({"RedfishVersion":"1\u0007","Vendor":"\u001b]0;x\u0007"})";
  probe.answers["/redfish/v1/Systems/1"].text =
      "{\"Manufacturer\":\"Dell\\r\xC2\x9B"
      "2J\xFF\"}";
  probe.answers["mac"].text = "\x1b[31mb0:7b:25:e4:1f:6a";
  const Walk walk = Doctor(probe);
  EXPECT_EQ(walk.status, 0);
  for (char raw : {'\x1b', '\a', '\r', '\xff', '\x9b'})
    EXPECT_EQ(walk.out.find(raw), std::string::npos) << static_cast<int>(raw) << " in\n"
                                                     << walk.out;
  EXPECT_NE(walk.out.find("Redfish 1\\x07 (\\x1b]0;x\\x07)\n"), std::string::npos) << walk.out;
  EXPECT_NE(walk.out.find("maker Dell\\x0d\\xc2\\x9b2J\xEF\xBF\xBD\n"), std::string::npos);
  EXPECT_NE(walk.out.find(" \\x1b[31mb0:7b:25:e4:1f:6a "), std::string::npos);

  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(Doctor(probe, true).out.c_str());
  ASSERT_FALSE(doc.HasParseError());
  EXPECT_STREQ(doc["links"][6]["detail"].GetString(),
               "1 system, 1 manager, 2 chassis; maker Dell\r\xC2\x9B"
               "2J\xEF\xBF\xBD");
}
