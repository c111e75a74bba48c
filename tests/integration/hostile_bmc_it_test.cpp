// A BMC that sends hostile ids and bodies, inside the emulated host (Dell
// profile): what reaches the proxy, what the caller gets, what the log holds.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <algorithm>

#include "connection/request_target.h"
#include "it_support.h"
#include "tests/hostile_ids.h"

using it::Control;
using it::Env;
using it::Field;
using it::Lib;

namespace {

// The library reads its log destination at its first message, which comes
// after this is set: every test loads the library inside a test body.
const std::string kLogFile = Env("HOST_SIM_DIR") + "/library.log";
const bool kLogToFile = setenv("BMCREDFISH_LOG", ("file:" + kLogFile).c_str(), 1) == 0;
const char kMac[] = "b0:7b:25:e4:1f:6a";
const char kSystem[] = "/redfish/v1/Systems/System.Embedded.1";

std::string JsonString(const std::string& raw) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> w(text);
  w.String(raw.c_str(), static_cast<rapidjson::SizeType>(raw.size()));
  return text.GetString();
}

// Serves body, with status 200, for requests whose path (and query) match pattern.
void Serve(const std::string& pattern, const std::string& body) {
  static int n = 0;
  const std::string file = Env("HOST_SIM_DIR") + "/body-" + std::to_string(++n) + ".json";
  std::ofstream(file) << body;
  Control("/faults", "[" + JsonString(pattern + ":status=200,body=" + file) + "]");
}

std::vector<std::string> Lines(const std::string& file) {
  std::vector<std::string> out;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) out.push_back(line);
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
    ASSERT_TRUE(kLogToFile);
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

}  // namespace

TEST_F(HostileBmc, HostileMemberIdsAndResetTargetsNeverReachTheProxy) {
  for (const bool resetTarget : {false, true}) {
    for (const auto& id : hostile::kIds) {
      SCOPED_TRACE(JsonString(id) + (resetTarget ? " as the reset target" : " as a member"));
      SetUp();
      bool on = false;
      if (resetTarget) {
        Serve(std::string(kSystem) + "?$select=Actions",
              R"({"Actions":{"#ComputerSystem.Reset":{"target":)" + JsonString(id) +
                  R"(,"ResetType@Redfish.AllowableValues":["On","ForceOff"]}}})");
        EXPECT_EQ(Lib().power("admin", "secret", nullptr, kMac, REDFISHCMD_FORCE_OFF, 5000),
                  REDFISH_ERR_INVALID_ARGUMENT);
      } else {
        Serve("/redfish/v1/Systems", R"({"Members":[{"@odata.id":)" + JsonString(id) + "}]}");
        EXPECT_EQ(Lib().powerState("admin", "secret", nullptr, 5000, &on),
                  REDFISH_ERR_INVALID_ARGUMENT);
      }
      for (const auto& method : Field(Env("EMULATOR_LOG"), "method")) EXPECT_EQ(method, "GET");
      const std::string marker = SyncProxyLog();
      const auto sent = NewProxyTargets();
      for (const auto& uri : sent) EXPECT_EQ(redfish::UnsafeRequestTarget(uri), nullptr) << uri;
      if (!resetTarget) {
        EXPECT_EQ(sent, (std::vector<std::string>{"/bmc/redfish/v1/Systems", marker}));
      }
    }
  }
  bool on = false;
  ASSERT_EQ(Lib().powerState("admin", "secret", nullptr, 5000, &on), 0);
  EXPECT_TRUE(on) << "no reset reached the BMC";
  for (const char* method : {"GET", "POST"}) {
    const std::string line =
        std::string(" Redfish[3] ") + method + ": refused request target '/bmc";
    const auto lines = Lines(kLogFile);
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [&](const std::string& l) { return l.find(line) != std::string::npos; }),
        static_cast<long>(hostile::kIds.size()))
        << method;
  }
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
