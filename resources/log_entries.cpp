#include "resources/log_entries.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include "resources/json_output.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"
#include "utils/utf8.h"

namespace redfish {

namespace {

constexpr int kCursorVersion = 1;
constexpr size_t kMaxCursor = size_t{128} * 1024;
constexpr char kRedfishPrefix[] = "/redfish/v1";

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool EndsWith(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

// Lower-case words: split at anything not a letter or digit, and where a
// lower-case letter meets an upper-case one ("EventLogCleared").
std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  char previous = 0;
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (!std::isalnum(u)) {
      if (!word.empty()) words.push_back(std::move(word));
      word.clear();
    } else {
      if (std::isupper(u) && std::islower(static_cast<unsigned char>(previous)) && !word.empty()) {
        words.push_back(std::move(word));
        word.clear();
      }
      word += static_cast<char>(std::tolower(u));
    }
    previous = c;
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

bool Has(const std::vector<std::string>& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool HasPrefix(const std::vector<std::string>& words, std::string_view prefix) {
  return std::any_of(words.begin(), words.end(), [&](const std::string& w) {
    return w.compare(0, prefix.size(), prefix) == 0;
  });
}

// "IML Cleared", "Log area reset/cleared", "EventLogCleared": a BMC's mark
// that its log was emptied, which says nothing about the hardware.
bool IsClearMarker(const std::string& messageId, const std::string& message) {
  std::vector<std::string> words = Words(messageId);
  const std::vector<std::string> more = Words(message);
  words.insert(words.end(), more.begin(), more.end());
  const bool aLog = std::any_of(words.begin(), words.end(), [](const std::string& w) {
    return w == "sel" || w == "iml" || EndsWith(w, "log");
  });
  return aLog && HasPrefix(words, "clear");
}

// Threshold messages that say their direction: "...WarningLowGoingLow"
// asserts (away from normal), "...WarningLowGoingHigh" deasserts it.
bool ThresholdCrossing(const std::string& messageId, std::string& family, bool& assertion) {
  for (const char* direction : {"GoingLow", "GoingHigh"}) {
    if (!EndsWith(messageId, direction)) continue;
    family = messageId.substr(0, messageId.size() - std::string_view(direction).size());
    const bool low = EndsWith(family, "Low");
    if (!low && !EndsWith(family, "High")) return false;
    assertion = (direction[5] == 'L') == low;
    return true;
  }
  return false;
}

LogSeverity SeverityOf(const std::string& text) {
  if (EqualsIgnoringCase(text, "Critical")) return LogSeverity::Critical;
  if (EqualsIgnoringCase(text, "Warning")) return LogSeverity::Warning;
  return LogSeverity::Ok;
}

std::optional<LogSeverity> SeverityNamed(const std::string& text) {
  for (LogSeverity s : {LogSeverity::Ok, LogSeverity::Warning, LogSeverity::Critical}) {
    if (text == SeverityName(s)) return s;
  }
  return std::nullopt;
}

// Days from 1970-01-01 to a proleptic Gregorian date.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool Digits(std::string_view text, size_t at, size_t count, int& out) {
  if (at + count > text.size()) return false;
  out = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

void WriteMark(JsonWriter& w, const char* key, const std::optional<EntryMark>& mark) {
  w.Key(key);
  if (!mark) {
    w.Null();
    return;
  }
  w.StartObject();
  WriteText(w, "Id", mark->id);
  WriteText(w, "Created", mark->created);
  w.EndObject();
}

// What names an entry and its weight, of an entry or of the earlier one it
// resolves.
template <typename Entry>
void WriteStamp(JsonWriter& w, const Entry& e) {
  WriteText(w, "Id", e.id);
  WriteText(w, "Created", e.created);
  WriteNumber(w, "Time", e.time);
  WriteText(w, "Severity", SeverityName(e.severity));
}

void WriteEarlier(JsonWriter& w, const LogRecord::Earlier& e) {
  w.StartObject();
  WriteStamp(w, e);
  w.EndObject();
}

// The log service as the cursor and the log document both hold it.
void WriteService(JsonWriter& w, const LogCursor& c) {
  WriteText(w, "Id", c.id);
  WriteText(w, "Name", c.name);
  WriteText(w, "LogEntryType", c.entryType);
  WriteText(w, "OverWritePolicy", c.policy);
  WriteNumber(w, "MaxNumberOfRecords", c.maxRecords);
}

bool ReadMark(const rapidjson::Value& object, const char* key, std::optional<EntryMark>& mark) {
  const rapidjson::Value* value = JsonMember(object, key);
  if (value == nullptr || value->IsNull()) return true;
  EntryMark m;
  if (!JsonString(*value, "Id", m.id) || !JsonString(*value, "Created", m.created)) return false;
  mark = std::move(m);
  return true;
}

bool ReadOptional(const rapidjson::Value& object, const char* key, std::optional<int64_t>& out) {
  const rapidjson::Value* value = JsonMember(object, key);
  if (value == nullptr || value->IsNull()) return true;
  if (!value->IsInt64()) return false;
  out = value->GetInt64();
  return true;
}

bool ReadEarlier(const rapidjson::Value& object, LogRecord::Earlier& e) {
  std::string severity;
  if (!JsonString(object, "Id", e.id) || !JsonString(object, "Created", e.created) ||
      !JsonString(object, "Severity", severity) || !ReadOptional(object, "Time", e.time)) {
    return false;
  }
  const auto named = SeverityNamed(severity);
  if (!named) return false;
  e.severity = *named;
  return true;
}

// A path the cursor may name: the BMC's, under the service root.
bool RedfishPath(const std::string& path) {
  return path.empty() || (path.size() <= LogCursor::kMaxPath &&
                          path.rfind(std::string(kRedfishPrefix) + "/", 0) == 0);
}

}  // namespace

std::string BoundedText(std::string_view text, size_t limit) {
  std::string valid = ValidUtf8(text.substr(0, limit + 4));
  if (valid.size() <= limit) return valid;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(valid[end]) & 0xC0) == 0x80) --end;
  valid.resize(end);
  return valid;
}

const char* SeverityName(LogSeverity severity) {
  static constexpr const char* kNames[] = {"OK", "Warning", "Critical"};
  return kNames[static_cast<size_t>(severity)];
}

const char* OrderName(LogOrder order) {
  static constexpr const char* kNames[] = {"Unknown", "OldestFirst", "NewestFirst"};
  return kNames[static_cast<size_t>(order)];
}

std::optional<int64_t> ParseRedfishTime(std::string_view t) {
  int year, month, day, hour, minute, second;
  if (t.size() < 20 || t[4] != '-' || t[7] != '-' || t[13] != ':' || t[16] != ':' ||
      (t[10] != 'T' && t[10] != 't' && t[10] != ' ') || !Digits(t, 0, 4, year) ||
      !Digits(t, 5, 2, month) || !Digits(t, 8, 2, day) || !Digits(t, 11, 2, hour) ||
      !Digits(t, 14, 2, minute) || !Digits(t, 17, 2, second)) {
    return std::nullopt;
  }
  size_t at = 19;
  if (t[at] == '.') {
    const size_t first = ++at;
    while (at < t.size() && std::isdigit(static_cast<unsigned char>(t[at]))) ++at;
    if (at == first) return std::nullopt;
  }
  int offset = 0;
  if (at + 1 == t.size() && (t[at] == 'Z' || t[at] == 'z')) {
    offset = 0;
  } else if (at + 6 == t.size() && (t[at] == '+' || t[at] == '-') && t[at + 3] == ':') {
    int oh, om;
    if (!Digits(t, at + 1, 2, oh) || !Digits(t, at + 4, 2, om) || oh > 23 || om > 59) {
      return std::nullopt;
    }
    offset = (oh * 60 + om) * 60 * (t[at] == '-' ? -1 : 1);
  } else {
    return std::nullopt;
  }
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (month < 1 || month > 12 || day < 1 || day > kDays[month - 1] + (month == 2 && leap ? 1 : 0) ||
      hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  return DaysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
         int64_t{hour} * 3600 + int64_t{minute} * 60 + second - offset;
}

int LogRecordOf(const rapidjson::Value& member, LogRecord& r) {
  if (!member.IsObject()) return RedfishStatusUnexpectedJson;
  r = LogRecord();
  r.id = BoundedText(JsonText(member, "Id"), LogRecord::kMaxText);
  const std::string created = JsonText(member, "Created");
  r.created = BoundedText(created, LogRecord::kMaxText);
  r.time = ParseRedfishTime(created);
  std::string severity = JsonText(member, "Severity");
  if (severity.empty()) severity = JsonText(member, "MessageSeverity");
  r.severity = SeverityOf(severity);
  r.message = BoundedText(JsonText(member, "Message"), LogRecord::kMaxMessage);
  r.messageId = BoundedText(JsonText(member, "MessageId"), LogRecord::kMaxText);
  r.entryCode = BoundedText(JsonText(member, "EntryCode"), LogRecord::kMaxText);
  if (const rapidjson::Value* links = JsonMember(member, "Links")) {
    if (const rapidjson::Value* origin = JsonMember(*links, "OriginOfCondition")) {
      r.origin = BoundedText(JsonText(*origin, "@odata.id"), LogRecord::kMaxText);
    }
  }
  const rapidjson::Value* number = JsonMember(member, "SensorNumber");
  if (number != nullptr && number->IsInt64()) r.sensorNumber = number->GetInt64();
  const rapidjson::Value* resolved = JsonMember(member, "Resolved");
  r.resolved = resolved != nullptr && resolved->IsBool() && resolved->GetBool();

  if (IsClearMarker(r.messageId, r.message)) {
    r.kind = LogKind::Cleared;
    return RedfishStatusOk;
  }
  // The part an entry names: its IPMI sensor, the resource it points at, or
  // the sensor name a threshold message carries first.
  std::string part;
  if (r.sensorNumber) {
    part = "#" + std::to_string(*r.sensorNumber);
  } else if (!r.origin.empty()) {
    part = "@" + r.origin;
  } else if (const rapidjson::Value* args = JsonMember(member, "MessageArgs")) {
    if (args->IsArray() && !args->Empty() && (*args)[0].IsString()) {
      part =
          "=" + BoundedText(std::string_view((*args)[0].GetString(), (*args)[0].GetStringLength()),
                            LogRecord::kMaxText);
    }
  }
  std::string family;
  bool assertion = false;
  if (EqualsIgnoringCase(r.entryCode, "Deassert")) {
    family = r.messageId;
  } else if (!ThresholdCrossing(r.messageId, family, assertion)) {
    family = r.entryCode.empty() ? std::string() : r.messageId;
    assertion = !family.empty();
  }
  if (family.empty()) return RedfishStatusOk;
  r.assertion = assertion;
  if (!assertion) r.kind = LogKind::Deassertion;
  if (!part.empty()) r.pairKey = part + "|" + family;
  return RedfishStatusOk;
}

int LogServiceScore(const rapidjson::Value& service, bool underSystem) {
  if (!service.IsObject()) return -1;
  const rapidjson::Value* enabled = JsonMember(service, "ServiceEnabled");
  if (enabled != nullptr && enabled->IsBool() && !enabled->GetBool()) return -1;
  const rapidjson::Value* entries = JsonMember(service, "Entries");
  if (entries == nullptr || !JsonMember(*entries, "@odata.id") ||
      !JsonMember(*entries, "@odata.id")->IsString()) {
    return -1;
  }
  std::vector<std::string> words = Words(JsonText(service, "Id"));
  const std::vector<std::string> name = Words(JsonText(service, "Name"));
  words.insert(words.end(), name.begin(), name.end());
  for (const char* other : {"audit", "security", "dump", "crashdump", "diagnostic", "debug",
                            "journal", "post", "postcode", "postcodes", "fault", "lclog",
                            "lifecycle", "maintenance", "fdr", "telemetry"}) {
    if (Has(words, other)) return -1;
  }
  int evidence = 0;
  const std::string type = JsonText(service, "LogEntryType");
  if (type == "SEL") evidence += 4;
  if (type == "Event") evidence += 3;
  if (type == "Multiple") evidence += 1;
  if (const rapidjson::Value* purposes = JsonMember(service, "LogPurposes")) {
    bool diagnostic = false;
    bool other = false;
    if (purposes->IsArray()) {
      for (const rapidjson::Value& p : purposes->GetArray()) {
        if (!p.IsString()) continue;
        const std::string_view purpose(p.GetString(), p.GetStringLength());
        diagnostic = diagnostic || purpose == "Diagnostic";
        other = other || purpose == "Security" || purpose == "Telemetry";
      }
    }
    if (other && !diagnostic) return -1;
    if (diagnostic) evidence += 2;
  }
  const bool log = Has(words, "log") || Has(words, "eventlog");
  const bool sel = Has(words, "sel") || (Has(words, "system") && Has(words, "event") && log);
  const bool iml = Has(words, "iml") || (Has(words, "integrated") && Has(words, "management"));
  if (sel || iml) {
    evidence += 4;
  } else if ((Has(words, "event") && log) || Has(words, "eventlog")) {
    evidence += 2;
  }
  if (Has(words, "platform")) evidence += 2;
  if (evidence < 2) return -1;
  return evidence + (JsonText(service, "OverWritePolicy") == "WrapsWhenFull" ? 1 : 0) +
         (underSystem ? 1 : 0);
}

LogOrder DetectOrder(const std::vector<LogRecord>& listed) {
  long up = 0;
  long down = 0;
  for (size_t i = 1; i < listed.size(); ++i) {
    const auto& a = listed[i - 1].time;
    const auto& b = listed[i].time;
    if (!a || !b || *a == *b) continue;
    (*b > *a ? up : down) += 1;
  }
  if (up == down) {
    up = down = 0;
    auto number = [](const std::string& id, unsigned long long& out) {
      if (id.empty() || id.size() > 19 ||
          !std::all_of(id.begin(), id.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
      }
      out = std::strtoull(id.c_str(), nullptr, 10);
      return true;
    };
    for (size_t i = 1; i < listed.size(); ++i) {
      unsigned long long a, b;
      if (!number(listed[i - 1].id, a) || !number(listed[i].id, b) || a == b) continue;
      (b > a ? up : down) += 1;
    }
  }
  if (up > down) return LogOrder::OldestFirst;
  if (down > up) return LogOrder::NewestFirst;
  return LogOrder::Unknown;
}

bool EntryMark::Matches(const LogRecord& record) const {
  return record.id == id && record.created == created;
}

EntryMark MarkOf(const LogRecord& record) { return {record.id, record.created}; }

std::string WriteCursor(const LogCursor& c) {
  return JsonObjectText([&](JsonWriter& w) {
    w.Key("v");
    w.Int(kCursorVersion);
    WriteText(w, "Service", c.service);
    WriteText(w, "Entries", c.entries);
    WriteService(w, c);
    w.Key("Checked");
    w.Int64(c.checked);
    w.Key("TopSkip");
    w.Bool(c.topSkip);
    WriteText(w, "Order", OrderName(c.order));
    WriteMark(w, "Last", c.last);
    WriteText(w, "Page", c.page);
    w.Key("Index");
    if (c.index) {
      w.Uint64(*c.index);
    } else {
      w.Null();
    }
    WriteMark(w, "Oldest", c.oldest);
    WriteObjects(w, "Open", c.open, [&](const OpenAssertion& open) {
      WriteText(w, "Key", open.key);
      w.Key("Entry");
      WriteEarlier(w, open.entry);
    });
  });
}

bool ParseCursor(std::string_view text, LogCursor& cursor) {
  if (text.size() > kMaxCursor) return false;
  rapidjson::Document d;
  ParseJson(d, std::string(text));
  if (d.HasParseError() || !d.IsObject()) return false;
  const rapidjson::Value* version = JsonMember(d, "v");
  if (version == nullptr || !version->IsInt() || version->GetInt() != kCursorVersion) return false;
  LogCursor c;
  std::string order;
  const rapidjson::Value* checked = JsonMember(d, "Checked");
  const rapidjson::Value* topSkip = JsonMember(d, "TopSkip");
  const rapidjson::Value* index = JsonMember(d, "Index");
  const rapidjson::Value* open = JsonMember(d, "Open");
  if (!JsonString(d, "Service", c.service) || !JsonString(d, "Entries", c.entries) ||
      !JsonString(d, "Id", c.id) || !JsonString(d, "Name", c.name) ||
      !JsonString(d, "LogEntryType", c.entryType) || !JsonString(d, "OverWritePolicy", c.policy) ||
      !JsonString(d, "Order", order) || !JsonString(d, "Page", c.page) ||
      !ReadOptional(d, "MaxNumberOfRecords", c.maxRecords) || checked == nullptr ||
      !checked->IsInt64() || topSkip == nullptr || !topSkip->IsBool() ||
      !ReadMark(d, "Last", c.last) || !ReadMark(d, "Oldest", c.oldest) || open == nullptr ||
      !open->IsArray() || open->Size() > LogCursor::kMaxOpen) {
    return false;
  }
  c.checked = checked->GetInt64();
  c.topSkip = topSkip->GetBool();
  if (index != nullptr && !index->IsNull()) {
    if (!index->IsUint64()) return false;
    c.index = index->GetUint64();
  }
  if (order == OrderName(LogOrder::OldestFirst)) {
    c.order = LogOrder::OldestFirst;
  } else if (order == OrderName(LogOrder::NewestFirst)) {
    c.order = LogOrder::NewestFirst;
  } else if (order != OrderName(LogOrder::Unknown)) {
    return false;
  }
  for (const rapidjson::Value& o : open->GetArray()) {
    OpenAssertion a;
    const rapidjson::Value* entry = JsonMember(o, "Entry");
    if (!JsonString(o, "Key", a.key) || entry == nullptr || !ReadEarlier(*entry, a.entry)) {
      return false;
    }
    c.open.push_back(std::move(a));
  }
  // Every path it names is sent as is: only the BMC's own.
  if (!RedfishPath(c.service) || !RedfishPath(c.entries) || !RedfishPath(c.page) ||
      c.service.empty() != c.entries.empty()) {
    return false;
  }
  cursor = std::move(c);
  return true;
}

void ResolvePairs(std::vector<LogRecord>& entries, std::vector<OpenAssertion>& open) {
  std::map<std::string, std::vector<size_t>> asserted;  // pair key -> unresolved assertions
  for (size_t i = 0; i < entries.size(); ++i) {
    LogRecord& e = entries[i];
    if (e.pairKey.empty() || (!e.assertion && e.kind != LogKind::Deassertion)) continue;
    if (e.assertion) {
      if (!e.resolved) asserted[e.pairKey].push_back(i);
      continue;
    }
    auto here = asserted.find(e.pairKey);
    if (here != asserted.end() && !here->second.empty()) {
      entries[here->second.back()].resolved = true;
      here->second.pop_back();
      continue;
    }
    for (auto it = open.rbegin(); it != open.rend(); ++it) {
      if (it->key != e.pairKey) continue;
      e.resolves = it->entry;
      open.erase(std::next(it).base());
      break;
    }
  }
  for (const LogRecord& e : entries) {
    if (!e.assertion || e.resolved || e.pairKey.empty()) continue;
    open.push_back({e.pairKey, {e.id, e.created, e.time, e.severity}});
  }
  if (open.size() > LogCursor::kMaxOpen) {
    open.erase(open.begin(), open.end() - LogCursor::kMaxOpen);
  }
}

std::string LogDocument(const LogCursor& cursor, const std::vector<LogRecord>& entries,
                        const LogOutcome& outcome) {
  return JsonObjectText([&](JsonWriter& w) {
    w.Key("Log");
    if (cursor.service.empty()) {
      w.Null();
    } else {
      w.StartObject();
      WriteText(w, "@odata.id", cursor.service);
      WriteService(w, cursor);
      WriteNumber(w, "Count", outcome.count);
      WriteText(w, "Order", OrderName(cursor.order));
      w.EndObject();
    }
    WriteObjects(w, "Entries", entries, [&](const LogRecord& e) {
      WriteStamp(w, e);
      WriteText(w, "Message", e.message);
      WriteText(w, "MessageId", e.messageId);
      WriteText(w, "OriginOfCondition", e.origin);
      WriteNumber(w, "SensorNumber", e.sensorNumber);
      WriteText(w, "EntryCode", e.entryCode);
      WriteText(w, "Kind",
                e.kind == LogKind::Cleared       ? "LogCleared"
                : e.kind == LogKind::Deassertion ? "Deassertion"
                                                 : "Event");
      w.Key("Resolved");
      w.Bool(e.resolved);
      if (e.resolves) {
        w.Key("Resolves");
        WriteEarlier(w, *e.resolves);
      }
    });
    w.Key("Restarted");
    w.Bool(outcome.restarted);
    w.Key("More");
    w.Bool(outcome.more);
    w.Key("Missed");
    if (outcome.missedUnknown) {
      w.Null();
    } else {
      w.Uint64(outcome.missed);
    }
    WriteText(w, "Cursor", WriteCursor(cursor));
  });
}

}  // namespace redfish
