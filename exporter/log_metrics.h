#pragma once

// The BMC's event log as numbers one can alert on, in a bounded set of
// series whatever the log holds: entries per severity within a window, the
// time of the newest per severity, how full the log is, and failed reads.
// Resolved entries, deassertions and "log cleared" marks count as nothing.
// The tally behind them (the library's cursor, counts by time) is saved
// between runs, so that a restart neither counts an entry again nor
// forgets one.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

constexpr double kDefaultLogWindow = 24 * 3600;

// What a scrape shows of the log.
struct LogSeries {
  bool present = false;             // the BMC has an event log, and it was read
  std::array<double, 3> entries{};  // OK, Warning, Critical: counted entries within the window
  std::array<double, 3> newest{};   // the newest counted entry's time per severity (0: none)
  std::optional<double> fill;       // entries held / MaxNumberOfRecords, where the BMC says both
  uint64_t failures = 0;            // log reads that failed
};

class LogTally {
 public:
  explicit LogTally(double window = kDefaultLogWindow);

  // Folds a document of Redfish_GetLogEntries read at now (seconds since
  // the epoch); false (nothing changed) when it is not one. An entry counts
  // at its own time, or at now when it has none or one in the future.
  bool Apply(const std::string& document, double now);
  void Failed() { ++failures_; }
  // Forgets the cursor and the counts: the log is read whole again.
  void Forget();

  const std::string& Cursor() const { return cursor_; }
  LogSeries Series(double now) const;

  // The tally as a JSON object, and back; Load returns false (and leaves the
  // tally as it was) for a text that is not one.
  std::string Save() const;
  bool Load(std::string_view json);

 private:
  int64_t Bucket(double time) const;
  void Prune(double now);

  double window_;
  double width_;  // seconds a count bucket spans: the window in 1,440 steps
  std::array<std::map<int64_t, uint32_t>, 3> buckets_;
  std::array<double, 3> newest_{};
  std::optional<double> fill_;
  bool present_ = false;
  uint64_t failures_ = 0;
  std::string cursor_;
};

// The log's series in the text exposition format: the failed reads, and the
// rest once a log was read.
std::string RenderLogSeries(const LogSeries& series);

// A window: seconds, or a number with s, m, h or d ("24h", "7d"); at least a
// minute, at most a year. False for anything else.
bool ParseLogWindow(const std::string& text, double& seconds);
