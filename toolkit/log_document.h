#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The log document of Redfish_GetLogEntries, as the tools read it.
namespace toolkit {

// An entry, its texts as the BMC gave them (not yet fit for printing).
struct LogEntry {
  std::string id;
  std::string created;
  std::optional<double> time;  // Created as seconds since the epoch, when it is a time
  int severity = 0;            // 0 OK, 1 Warning, 2 Critical
  std::string message;
  std::string messageId;
  std::string origin;
  std::optional<long long> sensorNumber;
  std::string kind;  // "Event", "Deassertion" or "LogCleared"
  bool resolved = false;
  // An entry of an earlier document that this one resolves.
  bool resolves = false;
  std::optional<double> resolvesTime = std::nullopt;
  int resolvesSeverity = 0;

  // An event still standing: not a deassertion or a clear mark, not resolved.
  bool Counts() const { return kind == "Event" && !resolved; }
};

struct LogDocument {
  bool haveLog = false;  // false: the BMC has no event log
  std::string path;      // the LogService's @odata.id
  std::string id, name, entryType, order;
  std::optional<double> maxRecords, count;
  std::vector<LogEntry> entries;  // oldest first
  bool restarted = false;
  bool more = false;
  std::optional<double> missed;  // none: some were missed, how many is not known
  std::string cursor;
};

// False when json is not such a document: an object with "Log" (an object or
// null), an array "Entries" of objects each with a "Severity" of OK, Warning
// or Critical, and a string "Cursor". Other members of the wrong type read
// as absent.
bool ParseLogDocument(std::string_view json, LogDocument& document);

// 0, 1, 2 for "OK", "Warning", "Critical" in any case; -1 for anything else.
int SeverityRank(std::string_view name);
const char* SeverityLabel(int rank);

}  // namespace toolkit
