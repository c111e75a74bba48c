#pragma once

// Pure readers of a BMC's event log: which of its log services holds the
// platform's events, its entries normalised, the order it lists them in, the
// assertions a later deassertion resolves, and the cursor a read leaves for
// the next. They send nothing and log nothing (resources/event_log.cpp does).

#include <rapidjson/document.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace redfish {

enum class LogSeverity { Ok, Warning, Critical };
enum class LogOrder { Unknown, OldestFirst, NewestFirst };
// What an entry is: an event, the end of a condition an earlier entry
// asserted, or the mark a BMC writes when its log was cleared.
enum class LogKind { Event, Deassertion, Cleared };

const char* SeverityName(LogSeverity severity);
const char* OrderName(LogOrder order);

// Seconds since the epoch of an RFC 3339 date-time ("2024-06-11T00:13:00-05:00",
// fractions and "Z" allowed); nullopt for anything else, "0000-00-00T..." included.
std::optional<int64_t> ParseRedfishTime(std::string_view text);

// An entry as the log document gives it. Texts are valid UTF-8, cut to their
// bounds (kMaxMessage for the message, kMaxText for the others).
struct LogRecord {
  static constexpr size_t kMaxText = 256;
  static constexpr size_t kMaxMessage = 1024;

  std::string id;
  std::string created;  // as the BMC wrote it
  std::optional<int64_t> time;
  LogSeverity severity = LogSeverity::Ok;
  std::string message;
  std::string messageId;
  std::string origin;  // Links.OriginOfCondition
  std::optional<int64_t> sensorNumber;
  std::string entryCode;
  LogKind kind = LogKind::Event;
  bool resolved = false;
  // What pairs an assertion with its deassertion: the part it names and the
  // message both share; "" when the entry takes part in no pair.
  std::string pairKey;
  bool assertion = false;
  // An assertion returned by an earlier read that this deassertion resolves.
  struct Earlier {
    std::string id;
    std::string created;
    std::optional<int64_t> time;
    LogSeverity severity = LogSeverity::Ok;
  };
  std::optional<Earlier> resolves;
};

// text as valid UTF-8 of at most limit bytes, cut between characters.
std::string BoundedText(std::string_view text, size_t limit);

// One member of an entries collection; 20004 when it is not an object.
int LogRecordOf(const rapidjson::Value& member, LogRecord& record);

// How well a LogService holds the platform's events (the system event log,
// the IPMI SEL, an integrated management log): its LogEntryType, LogPurposes,
// OverWritePolicy and the words of its Id and Name. Negative for one that
// cannot be it: disabled, without Entries, or an audit, security, dump,
// diagnostic, journal or POST-code log.
int LogServiceScore(const rapidjson::Value& service, bool underSystem);

// The order the entries are listed in, from their times (most adjacent pairs
// decide), else from numeric Ids; Unknown when neither tells.
LogOrder DetectOrder(const std::vector<LogRecord>& listed);

// An entry's Id and Created, enough to find it again.
struct EntryMark {
  std::string id;
  std::string created;
  bool Matches(const LogRecord& record) const;
  bool operator==(const EntryMark& other) const {
    return id == other.id && created == other.created;
  }
};
EntryMark MarkOf(const LogRecord& record);

// An assertion not yet resolved when its read ended, kept for later reads.
struct OpenAssertion {
  std::string key;
  LogRecord::Earlier entry;
};

// What one read leaves for the next: where the log is, how it lists its
// entries, the last entry returned and the assertions still open.
struct LogCursor {
  static constexpr size_t kMaxOpen = 32;
  // The longest path it keeps: a longer one is not followed (the service),
  // or not remembered (a page).
  static constexpr size_t kMaxPath = 2048;

  std::string service;  // the LogService; "" when the BMC has none
  std::string entries;  // its Entries collection
  std::string id, name, entryType, policy;
  std::optional<int64_t> maxRecords;
  int64_t checked = 0;   // when the LogServices were walked (seconds since the epoch)
  bool topSkip = false;  // $top and $skip are advertised
  LogOrder order = LogOrder::Unknown;
  std::optional<EntryMark> last;    // the last entry returned (none: read from the start)
  std::string page;                 // the page that held it (oldest first)
  std::optional<uint64_t> index;    // its place in the log (oldest first)
  std::optional<EntryMark> oldest;  // the log's oldest entry when last seen whole
  std::vector<OpenAssertion> open;
};

// The cursor text a document carries, and back: false for a text this
// library did not write.
std::string WriteCursor(const LogCursor& cursor);
bool ParseCursor(std::string_view text, LogCursor& cursor);

// Marks each assertion of entries (oldest first) that a later deassertion of
// the same part and message resolves, and each deassertion that resolves an
// assertion in open (from earlier reads); then keeps in open the assertions
// still unresolved, the newest kMaxOpen.
void ResolvePairs(std::vector<LogRecord>& entries, std::vector<OpenAssertion>& open);

// The log document (see bmcredfish(3)); entries oldest first.
struct LogOutcome {
  std::optional<int64_t> count;  // Members@odata.count
  bool restarted = false;        // the last entry read is gone: the log was read from its start
  bool more = false;             // a bound stopped the read; the next one goes on from there
  uint64_t missed = 0;           // new entries this read could not reach
  bool missedUnknown = false;    // some could not be reached, how many is not known
};
std::string LogDocument(const LogCursor& cursor, const std::vector<LogRecord>& entries,
                        const LogOutcome& outcome);

}  // namespace redfish
