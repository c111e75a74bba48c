// libFuzzer target: the event log's readers of a BMC's bytes. An input is a
// document a BMC might send (an entries page, a log service) or a cursor a
// caller passes back; each reader takes it. Traps when the log document
// written from what they read is not valid JSON, or a cursor read back
// differs from the one written.
#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "resources/log_entries.h"
#include "utils/json_access.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  redfish::LogCursor cursor;
  if (redfish::ParseCursor(text, cursor)) {
    redfish::LogCursor again;
    if (!redfish::ParseCursor(redfish::WriteCursor(cursor), again) ||
        redfish::WriteCursor(again) != redfish::WriteCursor(cursor)) {
      __builtin_trap();
    }
  }
  redfish::ParseRedfishTime(text);

  rapidjson::Document d;
  redfish::ParseJson(d, text);
  if (d.HasParseError()) return 0;
  redfish::LogServiceScore(d, size % 2 == 0);
  std::vector<redfish::LogRecord> records;
  const rapidjson::Value* members = redfish::JsonMember(d, "Members");
  if (members != nullptr && members->IsArray()) {
    for (const rapidjson::Value& m : members->GetArray()) {
      redfish::LogRecord r;
      if (redfish::LogRecordOf(m, r) == 0) records.push_back(std::move(r));
    }
  } else {
    redfish::LogRecord r;
    if (redfish::LogRecordOf(d, r) == 0) records.push_back(std::move(r));
  }
  cursor.order = redfish::DetectOrder(records);
  redfish::ResolvePairs(records, cursor.open);
  if (cursor.open.size() > redfish::LogCursor::kMaxOpen) __builtin_trap();
  if (!records.empty()) cursor.last = redfish::MarkOf(records.back());
  const std::string document = redfish::LogDocument(cursor, records, {});
  rapidjson::Document out;
  out.Parse(document.c_str());
  if (out.HasParseError()) __builtin_trap();
  redfish::LogCursor back;
  if (!redfish::ParseCursor(out["Cursor"].GetString(), back)) __builtin_trap();
  return 0;
}
