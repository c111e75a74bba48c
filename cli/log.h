#pragma once

// redfishctl log: the BMC's event log, oldest first (newest last), filtered
// by time and severity, once or following it as it grows.

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include "toolkit/log_document.h"

struct LogOptions {
  std::optional<double> since;  // seconds since the epoch: only entries from then on
  int minSeverity = 0;          // 0 OK, 1 Warning, 2 Critical: only entries this bad or worse
  bool json = false;            // one JSON object per entry and line
  double follow = 0;            // seconds between reads; 0 reads once
};

// --since: an RFC 3339 time ("2024-08-01T12:00:00Z", "2024-08-01") or how
// long ago ("90s", "15m", "2h", "7d") from now. False for neither.
bool ParseSince(const std::string& text, double now, double& since);

// --severity: ok, warning or critical, in any case. False for anything else.
bool ParseSeverity(const std::string& text, int& rank);

// Whether the options show the entry (one without a time has none to compare
// with --since, and is not shown then).
bool Shown(const toolkit::LogEntry& entry, const LogOptions& options);

// The entry as a line: its time (UTC) or its Created as the BMC wrote it,
// its severity, its message and what else tells (message id, sensor, part,
// resolved, a deassertion, a clear mark). Every BMC text is made Printable.
std::string LogLine(const toolkit::LogEntry& entry);
// The entry as one JSON object (no newline), the BMC's texts escaped.
std::string LogJson(const toolkit::LogEntry& entry);

// Reads the log (read: the library call, from a cursor), prints what the
// options show, and with follow reads again that often, printing only what
// is new. note says things on standard error; fail reports a failed read
// and returns the exit status (a following run goes on after it).
using LogRead = std::function<int(const std::string& cursor, std::string& document)>;
int RunLog(const LogOptions& options, const LogRead& read, const std::function<int(int)>& fail,
           const std::function<void(const std::string&)>& note, FILE* out);
