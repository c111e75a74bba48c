#pragma once

// What the documents the library writes have in common: a BMC's texts as
// valid UTF-8 (JSON must be, whatever the BMC sent), a missing number as
// null, and lists of records as arrays of objects.

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace redfish {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// A limit that keeps the whole text.
constexpr size_t kWholeText = std::string_view::npos;

// A document that is one object, whose members fill(writer) writes.
template <typename Fill>
std::string JsonObjectText(Fill fill) {
  rapidjson::StringBuffer buffer;
  JsonWriter w(buffer);
  w.StartObject();
  fill(w);
  w.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

// text's first limit bytes, as valid UTF-8.
void WriteString(JsonWriter& w, std::string_view text, size_t limit = kWholeText);
void WriteText(JsonWriter& w, const char* key, std::string_view text, size_t limit = kWholeText);

// key: an object of texts, in the order given.
using NamedTexts = std::initializer_list<std::pair<const char*, std::string_view>>;
void WriteTexts(JsonWriter& w, const char* key, NamedTexts texts, size_t limit = kWholeText);

// key: the number, or null (also for a double JSON cannot hold: infinity).
void WriteNumber(JsonWriter& w, const char* key, const std::optional<int64_t>& value);
void WriteNumber(JsonWriter& w, const char* key, const std::optional<double>& value);

// key: an array of an object per item, whose members each(item) writes.
template <typename Items, typename Each>
void WriteObjects(JsonWriter& w, const char* key, const Items& items, Each each) {
  w.Key(key);
  w.StartArray();
  for (const auto& item : items) {
    w.StartObject();
    each(item);
    w.EndObject();
  }
  w.EndArray();
}

}  // namespace redfish
