#pragma once

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "bmcredfish.h"
#include "platform/feature_state.h"
#include "platform/tessel/logging.h"
#include "tests/fakes/fake_http.h"
#include "tests/fakes/fake_sysinfo.h"

namespace test_support {

// Returns once the thread (its id published in tid) sleeps in the kernel on a
// futex: waiting for a lock.
inline void WaitUntilBlocked(const std::atomic<pid_t>& tid) {
  for (std::string where; where.rfind("futex", 0) != 0;) {
    std::this_thread::yield();
    if (tid == 0) continue;
    std::ifstream wchan("/proc/self/task/" + std::to_string(tid.load()) + "/wchan");
    wchan >> where;
  }
}

// Collects every log line written while it lives.
class LogCapture {
 public:
  struct Line {
    int level;
    std::string text;
  };
  LogCapture() {
    Tessel::Service::SetLogSink(
        [this](const Tessel::Service::Logger&, int level, const std::string& text) {
          std::lock_guard<std::mutex> lock(mutex_);
          lines_.push_back({level, text});
        });
  }
  ~LogCapture() { Tessel::Service::SetLogSink(nullptr); }
  std::vector<Line> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<std::string> Texts() const {
    std::vector<std::string> out;
    for (const auto& l : Lines()) out.push_back(l.text);
    return out;
  }
  bool Has(int level, const std::string& text) const {
    auto lines = Lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const Line& l) { return l.level == level && l.text == text; });
  }
  bool HasPrefix(int level, const std::string& prefix) const {
    auto lines = Lines();
    return std::any_of(lines.begin(), lines.end(), [&](const Line& l) {
      return l.level == level && l.text.compare(0, prefix.size(), prefix) == 0;
    });
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

// A BMC scripted by request target; unknown targets answer 404.
class ScriptedBmc {
 public:
  ScriptedBmc& On(const std::string& target, fake_http::Reply reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_[target] = std::move(reply);
    return *this;
  }
  ScriptedBmc& Json(const std::string& target, const std::string& body, int status = 200) {
    return On(target, fake_http::Json(status, body));
  }
  // A reply for one method only; it wins over the target's general reply.
  ScriptedBmc& OnMethod(int method, const std::string& target, fake_http::Reply reply) {
    return On(std::to_string(method) + " " + target, std::move(reply));
  }
  void Install() {
    fake_http::SetHandler([this](const fake_http::Request& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = replies_.find(std::to_string(r.method) + " " + r.target);
      if (it == replies_.end()) it = replies_.find(r.target);
      if (it == replies_.end())
        return fake_http::Json(404, R"({"error":{"code":"Base.1.0.ResourceMissingAtURI"}})");
      return it->second;
    });
  }
  static std::vector<std::string> Targets() {
    std::vector<std::string> out;
    for (const auto& r : fake_http::Requests()) out.push_back(r.target);
    return out;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, fake_http::Reply> replies_;
};

// The public API switched on, over a scripted Dell BMC: one system (reset
// target /r, advertising On, answered 204), one manager with one interface of
// kMac, one chassis with four sensors, and a proxy without a route document.
struct ApiTest : testing::Test {
  static constexpr char kMac[] = "AA:BB:CC:DD:EE:01";
  ApiTest() {
    FeatureState_Init();
    *GetFeatureState_Slow("REDFISH") = 1;
    fake_sysinfo::SetIpv4(127, 0, 42, 1);
    Script();
  }
  // (Re)scripts the BMC and the proxy as described above.
  void Script() {
    Members("/bmc/redfish/v1/Systems", "/redfish/v1/Systems/1");
    Members("/bmc/redfish/v1/Managers", "/redfish/v1/Managers/1");
    Members("/bmc/redfish/v1/Managers/1/EthernetInterfaces",
            "/redfish/v1/Managers/1/EthernetInterfaces/1");
    Members("/bmc/redfish/v1/Chassis", "/redfish/v1/Chassis/1");
    bmc.Json("/portico/config/json/bmcApi.json", "{}", 404)
        .OnMethod(Tessel::Http::Put, "/portico/config/json/bmcApi.json", fake_http::Json(204, ""))
        .Json("/bmc/redfish/v1/Managers/1/EthernetInterfaces/1/?$select=MACAddress",
              std::string(R"({"MACAddress":")") + kMac + "\"}")
        .Json("/bmc/redfish/v1/Systems/1/?$select=Manufacturer", R"({"Manufacturer":"Dell Inc."})")
        .Json("/bmc/redfish/v1/Systems/1/?$select=Actions",
              R"({"Actions":{"#ComputerSystem.Reset":{"target":"/r",)"
              R"("ResetType@Redfish.AllowableValues":["On"]}}})")
        .Json("/bmc/redfish/v1/Systems/1/?$select=PowerState", R"({"PowerState":"On"})")
        .Json("/bmc/r", "", 204)
        .Json("/bmc/redfish/v1/Chassis/1/Sensors", "{}")
        .Json("/bmc/redfish/v1/Chassis/1/Sensors?$expand=.($levels=1)", R"({"Members":[1,2,3,4]})");
    bmc.Install();
  }
  ~ApiTest() override { cleanup(); }
  // Scripts a collection of one member; the id may hold any bytes.
  void Members(const std::string& collection, const std::string& id) {
    bmc.Json(collection, R"({"Members":[{"@odata.id":)" + Quoted(id) + "}]}");
  }
  // A JSON string holding any bytes.
  static std::string Quoted(const std::string& text) {
    rapidjson::StringBuffer out;
    rapidjson::Writer<rapidjson::StringBuffer> writer(out);
    writer.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
    return out.GetString();
  }
  static int Posts() {
    int n = 0;
    for (const auto& r : fake_http::Requests()) n += r.method == Tessel::Http::Post;
    return n;
  }
  ScriptedBmc bmc;
  LogCapture log;
};

}  // namespace test_support
