// The library as a host service uses it, against the emulated host. Run by
// tools/host-sim, which provides the environment read below.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bmcredfish.h"

namespace {

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

struct Library {
  void* handle = nullptr;
  decltype(&Redfish_GetPowerState) powerState = nullptr;
  decltype(&Redfish_GetMacAddress) macAddress = nullptr;
  decltype(&Redfish_GetSensorsInfo) sensors = nullptr;
  decltype(&Redfish_PowerOperation) power = nullptr;
  decltype(&Redfish_CloseConnection) close = nullptr;
  decltype(&cleanup) closeAll = nullptr;

  template <typename F>
  void Bind(F& fn, const char* name) {
    fn = reinterpret_cast<F>(dlsym(handle, name));
    if (fn == nullptr) throw std::runtime_error(std::string("missing ") + name);
  }
  Library() {
    handle = dlopen(Env("E2E_LIBRARY").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw std::runtime_error(dlerror());
    Bind(powerState, "Redfish_GetPowerState");
    Bind(macAddress, "Redfish_GetMacAddress");
    Bind(sensors, "Redfish_GetSensorsInfo");
    Bind(power, "Redfish_PowerOperation");
    Bind(close, "Redfish_CloseConnection");
    Bind(closeAll, "cleanup");
    auto init = reinterpret_cast<void (*)()>(dlsym(handle, "FeatureState_Init"));
    auto state = reinterpret_cast<uint8_t* (*)(const char*)>(dlsym(handle, "GetFeatureState_Slow"));
    init();
    *state("REDFISH") = 1;
  }
};

Library& Lib() {
  static Library lib;
  return lib;
}

// What each emulator profile is, as a caller sees it.
struct Profile {
  std::string systemId;
  std::string mac;       // the last interface of the first manager
  std::string otherMac;  // another interface of the BMC, if any
  int resetDone;         // result of a reset that did something
  int resetNoop;         // result of a reset that needed none
  bool hasSensors;
  bool knownVendor;
  bool actionInfo;
  bool powerCycle;
};

const std::map<std::string, Profile> kProfiles = {
    {"dell", {"System.Embedded.1", "b0:7b:25:e4:1f:6a", "", 204, 40006, true, true, false, true}},
    {"hpe", {"1", "0A:CA:FE:F0:0D:04", "5C:ED:8C:4B:71:A8", 0, 40006, false, true, false, false}},
    {"lenovo",
     {"1", "08:8f:c3:b2:47:1e", "08:8f:c3:b2:47:1d", 40006, 40006, true, true, true, true}},
    {"generic",
     {"node1", "3C:A8:2A:5F:90:1C", "3C:A8:2A:5F:90:1B", 0, 0, true, false, false, true}},
};

const Profile& P() { return kProfiles.at(Env("E2E_PROFILE")); }
const char* User() { return "admin"; }
const char* Password() { return "secret"; }

void Control(const std::string& path, const std::string& body) {
  std::string cmd = "curl -sk -o /dev/null -X POST -H 'Content-Type: application/json' --data '" +
                    body + "' " + Env("EMULATOR_CONTROL") + path;
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

struct Logged {
  std::string method, path, body;
  std::map<std::string, std::string> headers;
  int status;
};

std::vector<Logged> ReadLog(const std::string& file) {
  std::vector<Logged> out;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    rapidjson::Document d;
    d.Parse(line.c_str());
    if (d.HasParseError() || !d.IsObject()) continue;
    Logged l;
    l.method = d["method"].GetString();
    l.path = d["path"].GetString();
    l.body = d.HasMember("body") && d["body"].IsString() ? d["body"].GetString() : "";
    l.status = d.HasMember("status") && d["status"].IsInt() ? d["status"].GetInt() : 0;
    if (d.HasMember("headers") && d["headers"].IsObject()) {
      for (auto& m : d["headers"].GetObject()) {
        std::string name = m.name.GetString();
        for (auto& c : name) c = static_cast<char>(std::tolower(c));
        if (m.value.IsString()) l.headers[name] = m.value.GetString();
      }
    }
    out.push_back(l);
  }
  return out;
}

std::vector<std::string> Paths(const std::vector<Logged>& log) {
  std::vector<std::string> out;
  for (const auto& l : log) out.push_back(l.method + " " + l.path);
  return out;
}

// One round of the three queries on the local host; returns how many failed.
int QueryRound() {
  bool on = false;
  char mac[32];
  unsigned int length = sizeof mac;
  int failures = Lib().powerState(User(), Password(), nullptr, 5000, &on) != 0 || !on;
  failures +=
      Lib().macAddress(User(), Password(), nullptr, P().mac.c_str(), 5000, mac, &length) != 0;
  length = 0;
  const int rc = Lib().sensors(User(), Password(), nullptr, 5000, nullptr, &length);
  return failures + (rc != (P().hasSensors ? 0 : 40001));
}

int Posts() {
  int n = 0;
  for (const auto& l : ReadLog(Env("EMULATOR_LOG"))) n += l.method == "POST";
  return n;
}

class EndToEnd : public testing::Test {
 protected:
  void SetUp() override {
    Lib().closeAll();  // a fresh connection: cold discovery
    Control("/power", R"({"system":0,"PowerState":"On"})");
    Control("/faults", "[]");
    Control("/reset-log", "{}");
  }
};

}  // namespace

// Run alone in its own emulated host (see CMakeLists.txt): it needs the
// process's first connection and a proxy that has no route yet.
TEST_F(EndToEnd, FirstConnectionWritesTheRouteFromTheTemplate) {
  bool on = false;
  ASSERT_EQ(Lib().powerState(User(), Password(), nullptr, 5000, &on), P().knownVendor ? 0 : 2);
  auto config = ReadLog(Env("PORTICO_LOG"));
  ASSERT_GE(config.size(), 2u);
  EXPECT_EQ(config[0].method, "GET");
  EXPECT_EQ(config[0].status, 404);
  EXPECT_EQ(config[1].method, "PUT");
  EXPECT_EQ(config[1].status, 204);
  const std::string address = "\"address\":\"" + Env("BMC_ADDR") + "\"";
  EXPECT_NE(config[1].body.find(address), std::string::npos) << config[1].body;
  EXPECT_EQ(config[1].body.find('\n'), std::string::npos) << "compact JSON";
  EXPECT_EQ(config[1].body.find(": "), std::string::npos) << "compact JSON";

  Lib().closeAll();
  ASSERT_EQ(Lib().powerState(User(), Password(), nullptr, 5000, &on), P().knownVendor ? 0 : 2);
  EXPECT_EQ(ReadLog(Env("PORTICO_LOG")).size(), config.size()) << "once per process";
}

TEST_F(EndToEnd, ColdThenWarmPowerStateRead) {
  if (!P().knownVendor) {
    bool on = false;
    EXPECT_EQ(Lib().powerState(User(), Password(), nullptr, 5000, &on), 2);
    EXPECT_EQ(Posts(), 0);
    return;
  }
  bool on = false;
  ASSERT_EQ(Lib().powerState(User(), Password(), nullptr, 5000, &on), 0);
  EXPECT_TRUE(on);
  const std::string sys = "/redfish/v1/Systems/" + P().systemId;
  std::vector<std::string> expected = {"GET /redfish/v1/Systems",
                                       "GET " + sys + "/?$select=Manufacturer",
                                       "GET " + sys + "/?$select=Actions"};
  if (P().actionInfo) expected.push_back("GET " + sys + "/ResetActionInfo");
  expected.push_back("GET " + sys + "/?$select=PowerState");
  auto log = ReadLog(Env("EMULATOR_LOG"));
  EXPECT_EQ(Paths(log), expected);
  for (const auto& l : log) {
    EXPECT_EQ(l.headers.count("authorization") ? l.headers.at("authorization") : "",
              "Basic YWRtaW46c2VjcmV0");
    EXPECT_EQ(l.headers.count("accept") ? l.headers.at("accept") : "", "application/json");
  }

  Control("/reset-log", "{}");
  Control("/power", R"({"system":0,"PowerState":"Off"})");
  ASSERT_EQ(Lib().powerState(User(), Password(), nullptr, 5000, &on), 0);
  EXPECT_FALSE(on);
  EXPECT_EQ(Paths(ReadLog(Env("EMULATOR_LOG"))),
            std::vector<std::string>{"GET " + sys + "/?$select=PowerState"});
}

TEST_F(EndToEnd, ResetSendsOneExactBodyAndMapsTheVendorsAnswers) {
  if (!P().knownVendor) GTEST_SKIP() << "discovery ends with 2 for an unknown vendor";
  ASSERT_EQ(
      Lib().power(User(), Password(), nullptr, P().mac.c_str(), REDFISHCMD_GRACEFUL_SHUTDOWN, 5000),
      P().resetDone);
  auto log = ReadLog(Env("EMULATOR_LOG"));
  ASSERT_EQ(Posts(), 1);
  const Logged& post = log.back();
  EXPECT_EQ(post.path, "/redfish/v1/Systems/" + P().systemId + "/Actions/ComputerSystem.Reset");
  EXPECT_EQ(post.body, "{\n      \"ResetType\" : \"GracefulShutdown\"\n   }");
  EXPECT_EQ(post.headers.at("content-type"), "application/json");
  bool on = true;
  ASSERT_EQ(Lib().powerState(User(), Password(), nullptr, 5000, &on), 0);
  EXPECT_FALSE(on);

  // Already off: the vendor's "nothing to do" answer.
  EXPECT_EQ(
      Lib().power(User(), Password(), nullptr, P().mac.c_str(), REDFISHCMD_GRACEFUL_SHUTDOWN, 5000),
      P().resetNoop);
  EXPECT_EQ(Posts(), 2);
}

TEST_F(EndToEnd, MacGuardAndUnadvertisedCommandsSendNothing) {
  EXPECT_EQ(
      Lib().power(User(), Password(), nullptr, "00:11:22:33:44:55", REDFISHCMD_FORCE_OFF, 5000),
      40001);
  EXPECT_EQ(Lib().power(User(), Password(), nullptr, "", REDFISHCMD_FORCE_OFF, 5000), 40001)
      << "an empty MAC is searched like any other";
  std::string upper = P().mac;
  for (auto& c : upper) c = static_cast<char>(std::islower(c) ? std::toupper(c) : std::tolower(c));
  EXPECT_EQ(Lib().power(User(), Password(), nullptr, upper.c_str(), REDFISHCMD_FORCE_OFF, 5000),
            40001)
      << "the BMC's notation, exactly";
  if (P().knownVendor && !P().powerCycle) {
    EXPECT_EQ(
        Lib().power(User(), Password(), nullptr, P().mac.c_str(), REDFISHCMD_POWER_CYCLE, 5000),
        40003);
  }
  EXPECT_EQ(Posts(), 0);
}

TEST_F(EndToEnd, MacAddressAndItsLengthConvention) {
  char buffer[32];
  unsigned int length = sizeof buffer;
  ASSERT_EQ(Lib().macAddress(User(), Password(), nullptr, nullptr, 5000, buffer, &length), 0);
  EXPECT_EQ(std::string(buffer), P().mac);
  EXPECT_EQ(length, P().mac.size() + 1);
  if (!P().otherMac.empty()) {
    length = 5;
    ASSERT_EQ(
        Lib().macAddress(User(), Password(), nullptr, P().otherMac.c_str(), 5000, buffer, &length),
        0);
    EXPECT_EQ(std::string(buffer), P().otherMac.substr(0, 4));
    EXPECT_EQ(length, 5u);
  }
}

TEST_F(EndToEnd, SensorsComeInOneExpandedRequest) {
  unsigned int length = 0;
  int rc = Lib().sensors(User(), Password(), nullptr, 5000, nullptr, &length);
  if (!P().hasSensors) {
    EXPECT_EQ(rc, 40001) << "every chassis answers Sensors with 404";
    return;
  }
  ASSERT_EQ(rc, 0);
  std::vector<char> text(length + 1);
  unsigned int size = static_cast<unsigned int>(text.size());
  ASSERT_EQ(Lib().sensors(User(), Password(), nullptr, 5000, text.data(), &size), 0);
  EXPECT_EQ(size, length);
  rapidjson::Document d;
  d.Parse(text.data());
  ASSERT_TRUE(d.IsObject());
  ASSERT_TRUE(d["Members"].IsArray());
  EXPECT_GE(d["Members"].Size(), 5u);
  EXPECT_TRUE(d["Members"][0].HasMember("Reading")) << "members are expanded";

  Control("/reset-log", "{}");
  ASSERT_EQ(Lib().sensors(User(), Password(), nullptr, 5000, nullptr, &length), 0);
  auto paths = Paths(ReadLog(Env("EMULATOR_LOG")));
  ASSERT_EQ(paths.size(), 1u);
  EXPECT_NE(paths[0].find("/Sensors?$expand=.($levels=1)"), std::string::npos) << paths[0];
}

TEST_F(EndToEnd, FailedDiscoveryIsRetriedByTheNextCall) {
  if (!P().hasSensors) GTEST_SKIP();
  Control("/faults", R"(["/redfish/v1/Chassis:status=500@1"])");
  unsigned int length = 0;
  EXPECT_EQ(Lib().sensors(User(), Password(), nullptr, 5000, nullptr, &length), 500);
  EXPECT_EQ(Lib().sensors(User(), Password(), nullptr, 5000, nullptr, &length), 0);
}

TEST_F(EndToEnd, WrongPasswordIsRefused) {
  bool on = false;
  // A named host gets its own connection; the route stays as the first one set it.
  EXPECT_EQ(Lib().powerState(User(), "wrong", Env("BMC_ADDR").c_str(), 5000, &on), 40005);
  Lib().close(Env("BMC_ADDR").c_str());
}

TEST_F(EndToEnd, SixteenThreadsOnOneHost) {
  if (!P().knownVendor) GTEST_SKIP();
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) {
        failures += QueryRound();
        if (Lib().power(User(), Password(), nullptr, "00:00:00:00:00:00", REDFISHCMD_ON, 5000) !=
            40001)
          ++failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(Posts(), 0);
  auto paths = Paths(ReadLog(Env("EMULATOR_LOG")));
  EXPECT_EQ(std::count(paths.begin(), paths.end(), "GET /redfish/v1/Systems"), 1)
      << "discovered once";
}

TEST_F(EndToEnd, AnotherVendorsNoActionStatusIsPassedThrough) {
  if (!P().knownVendor) GTEST_SKIP();
  // One vendor's "nothing to do" status is an ordinary failure from another.
  const std::map<std::string, int> foreign = {{"dell", 400}, {"hpe", 409}, {"lenovo", 409}};
  const int status = foreign.at(Env("E2E_PROFILE"));
  Control("/faults", "[\"/redfish/v1/Systems/" + P().systemId +
                         "/Actions/ComputerSystem.Reset:status=" + std::to_string(status) +
                         "@1\"]");
  EXPECT_EQ(
      Lib().power(User(), Password(), nullptr, P().mac.c_str(), REDFISHCMD_GRACEFUL_SHUTDOWN, 5000),
      status);
  EXPECT_EQ(Posts(), 1);
}

// Callers and closers race on one host; run under TSan too. A freed connection
// in use shows as a crash, a sanitizer report or a failed call.
TEST_F(EndToEnd, CloseAndCleanupRaceWithCallsOnOneHost) {
  if (!P().knownVendor) GTEST_SKIP();
  std::atomic<int> failures{0};
  std::atomic<int> closes{0};
  std::atomic<int> callersLeft{16};
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 3 || closes.load() < 100; ++i) failures += QueryRound();
      --callersLeft;
    });
  }
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      while (callersLeft.load() > 0) {
        if (t == 0) {
          Lib().close(nullptr);
        } else {
          Lib().closeAll();
        }
        ++closes;
        std::this_thread::yield();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GE(closes.load(), 100);
  EXPECT_EQ(Posts(), 0);
}
