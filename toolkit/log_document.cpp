#include "toolkit/log_document.h"

#include <rapidjson/document.h>
#include <strings.h>

#include <algorithm>

namespace toolkit {

namespace {

std::string Text(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsString()) return "";
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

std::optional<double> Number(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !it->value.IsNumber()) return std::nullopt;
  return it->value.GetDouble();
}

bool Flag(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  return it != object.MemberEnd() && it->value.IsBool() && it->value.GetBool();
}

}  // namespace

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
  doc.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto log = doc.FindMember("Log");
  auto entries = doc.FindMember("Entries");
  auto cursor = doc.FindMember("Cursor");
  if (log == doc.MemberEnd() || !(log->value.IsObject() || log->value.IsNull()) ||
      entries == doc.MemberEnd() || !entries->value.IsArray() || cursor == doc.MemberEnd() ||
      !cursor->value.IsString()) {
    return false;
  }
  LogDocument d;
  if (log->value.IsObject()) {
    const rapidjson::Value& l = log->value;
    d.haveLog = true;
    d.path = Text(l, "@odata.id");
    d.id = Text(l, "Id");
    d.name = Text(l, "Name");
    d.entryType = Text(l, "LogEntryType");
    d.order = Text(l, "Order");
    d.maxRecords = Number(l, "MaxNumberOfRecords");
    d.count = Number(l, "Count");
  }
  for (const auto& e : entries->value.GetArray()) {
    if (!e.IsObject()) return false;
    LogEntry entry;
    entry.severity = SeverityRank(Text(e, "Severity"));
    if (entry.severity < 0) return false;
    entry.id = Text(e, "Id");
    entry.created = Text(e, "Created");
    entry.time = Number(e, "Time");
    entry.message = Text(e, "Message");
    entry.messageId = Text(e, "MessageId");
    entry.origin = Text(e, "OriginOfCondition");
    if (auto n = Number(e, "SensorNumber")) entry.sensorNumber = static_cast<long long>(*n);
    entry.kind = Text(e, "Kind");
    entry.resolved = Flag(e, "Resolved");
    auto earlier = e.FindMember("Resolves");
    if (earlier != e.MemberEnd() && earlier->value.IsObject()) {
      entry.resolves = true;
      entry.resolvesTime = Number(earlier->value, "Time");
      entry.resolvesSeverity = std::max(0, SeverityRank(Text(earlier->value, "Severity")));
    }
    d.entries.push_back(std::move(entry));
  }
  d.restarted = Flag(doc, "Restarted");
  d.more = Flag(doc, "More");
  d.missed = Number(doc, "Missed");
  d.cursor.assign(cursor->value.GetString(), cursor->value.GetStringLength());
  document = std::move(d);
  return true;
}

}  // namespace toolkit
