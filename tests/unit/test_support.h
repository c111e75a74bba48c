#pragma once

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/tessel/logging.h"
#include "tests/fakes/fake_http.h"

namespace test_support {

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

}  // namespace test_support
