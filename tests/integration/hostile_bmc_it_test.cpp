// A BMC that sends hostile ids and bodies, inside the emulated host (Dell
// profile): what reaches the proxy, what the caller gets, what the log holds.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bmcredfish.h"
#include "connection/request_target.h"

namespace {

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

const std::string kLogFile = Env("HOST_SIM_DIR") + "/library.log";
const char kMac[] = "b0:7b:25:e4:1f:6a";
const char kSystem[] = "/redfish/v1/Systems/System.Embedded.1";

// The library reads its log destination from the environment at its first
// message, so it is set before the library is loaded.
struct Library {
  void* handle = nullptr;
  decltype(&Redfish_GetPowerState) powerState = nullptr;
  decltype(&Redfish_PowerOperation) power = nullptr;
  decltype(&cleanup) closeAll = nullptr;
  Library() {
    setenv("BMCREDFISH_LOG", ("file:" + kLogFile).c_str(), 1);
    handle = dlopen(Env("E2E_LIBRARY").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw std::runtime_error(dlerror());
    powerState = reinterpret_cast<decltype(powerState)>(dlsym(handle, "Redfish_GetPowerState"));
    power = reinterpret_cast<decltype(power)>(dlsym(handle, "Redfish_PowerOperation"));
    closeAll = reinterpret_cast<decltype(closeAll)>(dlsym(handle, "cleanup"));
    reinterpret_cast<void (*)()>(dlsym(handle, "FeatureState_Init"))();
    *reinterpret_cast<uint8_t* (*)(const char*)>(dlsym(handle, "GetFeatureState_Slow"))("REDFISH") =
        1;
  }
};

Library& Lib() {
  static Library lib;
  return lib;
}

void Control(const std::string& path, const std::string& body) {
  const std::string file = Env("HOST_SIM_DIR") + "/control.json";
  std::ofstream(file) << body;
  const std::string cmd =
      "curl -sfk -o /dev/null -X POST -H 'Content-Type: application/json' "
      "--data-binary @" +
      file + " " + Env("EMULATOR_CONTROL") + path;
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

// Serves body, with status 200, for requests whose path (and query) match pattern.
void Serve(const std::string& pattern, const std::string& body) {
  static int n = 0;
  const std::string file = Env("HOST_SIM_DIR") + "/body-" + std::to_string(++n) + ".json";
  std::ofstream(file) << body;
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> w(text);
  w.StartArray();
  const std::string fault = pattern + ":status=200,body=" + file;
  w.String(fault.c_str());
  w.EndArray();
  Control("/faults", text.GetString());
}

std::string JsonString(const std::string& raw) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> w(text);
  w.String(raw.c_str(), static_cast<rapidjson::SizeType>(raw.size()));
  return text.GetString();
}

std::vector<std::string> Lines(const std::string& file) {
  std::vector<std::string> out;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// One field of each JSON line of a request log.
std::vector<std::string> Field(const std::string& file, const char* name) {
  std::vector<std::string> out;
  for (const auto& line : Lines(file)) {
    rapidjson::Document d;
    d.Parse(line.c_str());
    if (d.HasParseError() || !d.IsObject() || !d.HasMember(name) || !d[name].IsString()) continue;
    out.emplace_back(d[name].GetString(), d[name].GetStringLength());
  }
  return out;
}

std::vector<std::string> ProxyTargets() {
  return Field(Env("HOST_SIM_DIR") + "/portico/access.log", "uri");
}

// nginx writes a request's access-log line after answering it: send a marker
// request after the library's own and wait for the marker's line, so that
// every earlier request's line is there too.
std::string SyncProxyLog() {
  static int n = 0;
  const std::string marker = "/bmc/log-marker-" + std::to_string(++n);
  const std::string cmd = "curl -s -o /dev/null --http2-prior-knowledge http://localhost" + marker;
  EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
  for (int i = 0; i < 500; ++i) {
    auto all = ProxyTargets();
    if (std::find(all.begin(), all.end(), marker) != all.end()) return marker;
    usleep(20000);
  }
  ADD_FAILURE() << "the proxy never logged " << marker;
  return marker;
}

class HostileBmc : public testing::Test {
 protected:
  void SetUp() override {
    Lib().closeAll();
    SyncProxyLog();
    proxySeen = ProxyTargets().size();
    Control("/faults", "[]");
    Control("/reset-log", "{}");
    Control("/power", R"({"system":0,"PowerState":"On"})");
  }
  // Requests through the proxy since SetUp, but for the stand-in's own probes.
  std::vector<std::string> NewProxyTargets() {
    std::vector<std::string> out;
    auto all = ProxyTargets();
    for (size_t i = proxySeen; i < all.size(); ++i) {
      if (all[i].rfind("/__portico/", 0) != 0) out.push_back(all[i]);
    }
    return out;
  }
  size_t proxySeen = 0;
};

const std::vector<std::string> kHostileIds = {"/redfish/v1/Systems/System 1",
                                              "/redfish/v1/Systems/1\r\nX-Injected: 1",
                                              "/redfish/v1/Systems/1\t2",
                                              std::string("/redfish/v1/Systems/1\0", 22),
                                              "/redfish/v1/Systems/1\x7f",
                                              "/redfish/v1/Systems/../../__portico/generation",
                                              "/redfish/v1/Systems/./1",
                                              "/redfish/v1/Systems/1/..",
                                              "/redfish/v1/%2e%2e/%2e%2e/portico",
                                              "/redfish/v1/Systems/%2E%2E",
                                              "/redfish/v1/Systems%2f1"};

}  // namespace

TEST_F(HostileBmc, HostileMemberIdsNeverReachTheProxy) {
  for (const auto& id : kHostileIds) {
    SetUp();
    Serve("/redfish/v1/Systems", R"({"Members":[{"@odata.id":)" + JsonString(id) + "}]}");
    bool on = false;
    EXPECT_EQ(Lib().powerState("admin", "secret", nullptr, 5000, &on), REDFISH_ERR_INVALID_ARGUMENT)
        << JsonString(id);
    EXPECT_EQ(Field(Env("EMULATOR_LOG"), "path"), std::vector<std::string>{"/redfish/v1/Systems"})
        << JsonString(id);
    const std::string marker = SyncProxyLog();
    EXPECT_EQ(NewProxyTargets(), (std::vector<std::string>{"/bmc/redfish/v1/Systems", marker}))
        << JsonString(id);
  }
  int refused = 0;
  for (const auto& line : Lines(kLogFile)) {
    refused +=
        line.find(" Redfish[3] GET: refused request target '/bmc/redfish/v1/") != std::string::npos;
  }
  EXPECT_EQ(refused, static_cast<int>(kHostileIds.size()));
}

TEST_F(HostileBmc, HostileResetTargetIsNeverPosted) {
  for (const auto& target : kHostileIds) {
    SetUp();
    Serve(std::string(kSystem) + "?$select=Actions",
          R"({"Actions":{"#ComputerSystem.Reset":{"target":)" + JsonString(target) +
              R"(,"ResetType@Redfish.AllowableValues":["On","ForceOff"]}}})");
    EXPECT_EQ(Lib().power("admin", "secret", nullptr, kMac, REDFISHCMD_FORCE_OFF, 5000),
              REDFISH_ERR_INVALID_ARGUMENT)
        << JsonString(target);
    for (const auto& method : Field(Env("EMULATOR_LOG"), "method")) EXPECT_EQ(method, "GET");
    SyncProxyLog();
    for (const auto& uri : NewProxyTargets()) {
      EXPECT_EQ(redfish::UnsafeRequestTarget(uri), nullptr) << uri;
    }
  }
  bool on = false;
  ASSERT_EQ(Lib().powerState("admin", "secret", nullptr, 5000, &on), 0);
  EXPECT_TRUE(on) << "no reset reached the BMC";
  int refused = 0;
  for (const auto& line : Lines(kLogFile)) {
    refused += line.find(" Redfish[3] POST: refused request target '") != std::string::npos;
  }
  EXPECT_EQ(refused, static_cast<int>(kHostileIds.size()));
}

TEST_F(HostileBmc, BodyCannotForgeALogRecord) {
  const std::string forged = "2026-01-01T00:00:00.000000Z Redfish[3] FORGED record";
  Serve(std::string(kSystem) + "?$select=PowerState", "not json\n" + forged + "\n");
  const auto before = Lines(kLogFile).size();
  bool on = false;
  EXPECT_EQ(Lib().powerState("admin", "secret", nullptr, 5000, &on), REDFISH_ERR_BAD_JSON);
  const auto lines = Lines(kLogFile);
  ASSERT_GT(lines.size(), before);
  int carrying = 0;
  for (size_t i = before; i < lines.size(); ++i) {
    EXPECT_NE(lines[i].rfind(forged, 0), 0u) << "a record of its own: " << lines[i];
    EXPECT_EQ(lines[i].find(" Redfish["), 27u) << "every line is one whole record: " << lines[i];
    carrying += lines[i].find("not json\\n" + forged + "\\n") != std::string::npos;
  }
  EXPECT_GE(carrying, 1) << "the body is logged, escaped, inside one record";
}
