#include "log_metrics.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "exposition.h"
#include "toolkit/duration.h"
#include "toolkit/json_members.h"
#include "toolkit/log_document.h"

namespace {

constexpr int kBucketsPerWindow = 1440;
constexpr const char* kSeverities[] = {"OK", "Warning", "Critical"};

void Sample(std::string& out, const char* name, const char* severity, double value) {
  out.append(name);
  if (severity != nullptr) out.append("{severity=\"").append(severity).append("\"}");
  out.append(" ").append(SampleValue(value)).append("\n");
}

}  // namespace

LogTally::LogTally(double window)
    : window_(window), width_(std::max(1.0, std::floor(window / kBucketsPerWindow))) {}

int64_t LogTally::Bucket(double time) const {
  return static_cast<int64_t>(std::floor(time / width_));
}

void LogTally::Prune(double now) {
  const int64_t oldest = Bucket(now - window_);
  for (auto& b : buckets_) b.erase(b.begin(), b.lower_bound(oldest));
}

void LogTally::Forget() {
  for (auto& b : buckets_) b.clear();
  cursor_.clear();
}

bool LogTally::Apply(const std::string& document, double now) {
  toolkit::LogDocument d;
  if (!toolkit::ParseLogDocument(document, d)) return false;
  present_ = d.haveLog;
  fill_.reset();
  if (d.count && d.maxRecords && *d.maxRecords > 0) fill_ = *d.count / *d.maxRecords;
  const double from = now - window_;
  for (const toolkit::LogEntry& e : d.entries) {
    if (e.resolves && e.resolvesTime && *e.resolvesTime >= from) {
      // The entry it ends was counted by an earlier read: no longer.
      auto& b = buckets_[e.resolvesSeverity];
      auto it = b.find(Bucket(std::min(*e.resolvesTime, now)));
      if (it != b.end() && --it->second == 0) b.erase(it);
    }
    if (!e.Counts()) continue;
    const double t = e.time ? std::min(*e.time, now) : now;
    newest_[e.severity] = std::max(newest_[e.severity], t);
    if (t >= from) ++buckets_[e.severity][Bucket(t)];
  }
  cursor_ = d.cursor;
  Prune(now);
  return true;
}

LogSeries LogTally::Series(double now) const {
  LogSeries s;
  s.present = present_;
  s.fill = fill_;
  s.failures = failures_;
  const int64_t oldest = Bucket(now - window_);
  for (int i = 0; i < 3; ++i) {
    s.newest[i] = newest_[i];
    for (auto it = buckets_[i].lower_bound(oldest); it != buckets_[i].end(); ++it) {
      s.entries[i] += it->second;
    }
  }
  return s;
}

std::string LogTally::Save() const {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  w.Key("cursor");
  w.String(cursor_.c_str(), static_cast<rapidjson::SizeType>(cursor_.size()));
  w.Key("width");
  w.Double(width_);
  w.Key("present");
  w.Bool(present_);
  w.Key("failures");
  w.Uint64(failures_);
  w.Key("fill");
  if (fill_) {
    w.Double(*fill_);
  } else {
    w.Null();
  }
  w.Key("severities");
  w.StartArray();
  for (int i = 0; i < 3; ++i) {
    w.StartObject();
    w.Key("newest");
    w.Double(newest_[i]);
    w.Key("buckets");
    w.StartArray();
    for (const auto& [bucket, count] : buckets_[i]) {
      w.StartArray();
      w.Int64(bucket);
      w.Uint(count);
      w.EndArray();
    }
    w.EndArray();
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

bool LogTally::Load(std::string_view json) {
  using toolkit::json::Member;
  using toolkit::json::Value;
  rapidjson::Document d;
  if (!toolkit::json::ParseObject(json, d)) return false;
  const Value* cursor = Member(d, "cursor", rapidjson::kStringType);
  const std::optional<double> savedWidth = toolkit::json::Number(d, "width");
  const Value* severities = Member(d, "severities", rapidjson::kArrayType);
  if (cursor == nullptr || !savedWidth || *savedWidth < 1 || severities == nullptr ||
      severities->Size() != 3) {
    return false;
  }
  LogTally loaded(window_);
  for (int i = 0; i < 3; ++i) {
    const Value& s = (*severities)[i];
    if (!s.IsObject()) return false;
    const std::optional<double> newest = toolkit::json::Number(s, "newest");
    const Value* buckets = Member(s, "buckets", rapidjson::kArrayType);
    if (!newest || buckets == nullptr) return false;
    loaded.newest_[i] = *newest;
    for (const auto& b : buckets->GetArray()) {
      if (!b.IsArray() || b.Size() != 2 || !b[0].IsInt64() || !b[1].IsUint()) return false;
      // A window changed since: the counts keep their times.
      const double start = static_cast<double>(b[0].GetInt64()) * *savedWidth;
      loaded.buckets_[i][loaded.Bucket(start)] += b[1].GetUint();
    }
  }
  loaded.present_ = toolkit::json::Flag(d, "present");
  auto failures = d.FindMember("failures");
  if (failures != d.MemberEnd() && failures->value.IsUint64()) {
    loaded.failures_ = failures->value.GetUint64();
  }
  loaded.fill_ = toolkit::json::Number(d, "fill");
  loaded.cursor_.assign(cursor->GetString(), cursor->GetStringLength());
  *this = std::move(loaded);
  return true;
}

std::string RenderLogSeries(const LogSeries& s) {
  std::string out;
  Header(out, "bmcredfish_log_read_failures_total", "Event log reads that failed.", "counter");
  Sample(out, "bmcredfish_log_read_failures_total", nullptr, static_cast<double>(s.failures));
  if (!s.present) return out;
  Header(out, "bmcredfish_log_entries",
         "Event log entries within the window (--log-window) by severity; resolved entries, "
         "deassertions and log-cleared marks are not counted.",
         "gauge");
  for (int i = 0; i < 3; ++i) Sample(out, "bmcredfish_log_entries", kSeverities[i], s.entries[i]);
  Header(out, "bmcredfish_log_newest_entry_timestamp_seconds",
         "Unix time of the newest counted event log entry of each severity (0: none seen).",
         "gauge");
  for (int i = 0; i < 3; ++i) {
    Sample(out, "bmcredfish_log_newest_entry_timestamp_seconds", kSeverities[i], s.newest[i]);
  }
  if (s.fill) {
    Header(out, "bmcredfish_log_fill_ratio",
           "Entries the event log holds over the most it can hold, as the BMC says them.", "gauge");
    Sample(out, "bmcredfish_log_fill_ratio", nullptr, *s.fill);
  }
  return out;
}

bool ParseLogWindow(const std::string& text, double& seconds) {
  double value = 0;
  bool unit = false;
  if (!toolkit::ParseDuration(text, value, unit) || value < 60 || value > 366 * 86400) {
    return false;
  }
  seconds = value;
  return true;
}
