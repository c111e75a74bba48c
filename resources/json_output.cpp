#include "resources/json_output.h"

#include <cmath>

#include "utils/utf8.h"

namespace redfish {

void WriteString(JsonWriter& w, std::string_view text, size_t limit) {
  const std::string valid = ValidUtf8(text.substr(0, limit));
  w.String(valid.c_str(), static_cast<rapidjson::SizeType>(valid.size()));
}

void WriteText(JsonWriter& w, const char* key, std::string_view text, size_t limit) {
  w.Key(key);
  WriteString(w, text, limit);
}

void WriteTexts(JsonWriter& w, const char* key, NamedTexts texts, size_t limit) {
  w.Key(key);
  w.StartObject();
  for (const auto& [name, text] : texts) WriteText(w, name, text, limit);
  w.EndObject();
}

void WriteNumber(JsonWriter& w, const char* key, const std::optional<int64_t>& value) {
  w.Key(key);
  if (value) {
    w.Int64(*value);
  } else {
    w.Null();
  }
}

void WriteNumber(JsonWriter& w, const char* key, const std::optional<double>& value) {
  w.Key(key);
  if (value && std::isfinite(*value)) {
    w.Double(*value);
  } else {
    w.Null();
  }
}

}  // namespace redfish
