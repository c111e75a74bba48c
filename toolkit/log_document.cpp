#include "toolkit/log_document.h"

#include <strings.h>

#include <algorithm>

#include "toolkit/json_members.h"

namespace toolkit {

using json::Flag;
using json::Number;
using json::Text;
using json::Value;

int SeverityRank(std::string_view name) {
  static const char* const kNames[] = {"OK", "Warning", "Critical"};
  for (int i = 0; i < 3; ++i) {
    if (name.size() == std::string_view(kNames[i]).size() &&
        strncasecmp(name.data(), kNames[i], name.size()) == 0) {
      return i;
    }
  }
  return -1;
}

const char* SeverityLabel(int rank) {
  return rank == 2 ? "Critical" : rank == 1 ? "Warning" : "OK";
}

bool ParseLogDocument(std::string_view json, LogDocument& document) {
  rapidjson::Document doc;
  if (!json::ParseObject(json, doc)) return false;
  auto log = doc.FindMember("Log");
  const Value* entries = json::Member(doc, "Entries", rapidjson::kArrayType);
  const Value* cursor = json::Member(doc, "Cursor", rapidjson::kStringType);
  if (log == doc.MemberEnd() || !(log->value.IsObject() || log->value.IsNull()) ||
      entries == nullptr || cursor == nullptr) {
    return false;
  }
  LogDocument d;
  if (log->value.IsObject()) {
    const Value& l = log->value;
    d.haveLog = true;
    d.path = Text(l, "@odata.id");
    d.id = Text(l, "Id");
    d.name = Text(l, "Name");
    d.entryType = Text(l, "LogEntryType");
    d.order = Text(l, "Order");
    d.maxRecords = Number(l, "MaxNumberOfRecords");
    d.count = Number(l, "Count");
  }
  for (const auto& e : entries->GetArray()) {
    if (!e.IsObject()) return false;
    LogEntry entry{Text(e, "Id"),
                   Text(e, "Created"),
                   Number(e, "Time"),
                   SeverityRank(Text(e, "Severity")),
                   Text(e, "Message"),
                   Text(e, "MessageId"),
                   Text(e, "OriginOfCondition"),
                   std::nullopt,
                   Text(e, "Kind"),
                   Flag(e, "Resolved")};
    if (entry.severity < 0) return false;
    if (auto n = Number(e, "SensorNumber")) entry.sensorNumber = static_cast<long long>(*n);
    if (const Value* earlier = json::Member(e, "Resolves", rapidjson::kObjectType)) {
      entry.resolves = true;
      entry.resolvesTime = Number(*earlier, "Time");
      entry.resolvesSeverity = std::max(0, SeverityRank(Text(*earlier, "Severity")));
    }
    d.entries.push_back(std::move(entry));
  }
  d.restarted = Flag(doc, "Restarted");
  d.more = Flag(doc, "More");
  d.missed = Number(doc, "Missed");
  d.cursor.assign(cursor->GetString(), cursor->GetStringLength());
  document = std::move(d);
  return true;
}

}  // namespace toolkit
