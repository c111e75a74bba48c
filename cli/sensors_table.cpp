#include "sensors_table.h"

#include <rapidjson/document.h>

#include <cstdio>
#include <vector>

namespace {

std::string Text(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) return "";
  auto it = object.FindMember(name);
  if (it == object.MemberEnd()) return "";
  const rapidjson::Value& v = it->value;
  if (v.IsString()) return std::string(v.GetString(), v.GetStringLength());
  if (v.IsNumber()) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.6g", v.GetDouble());
    return buf;
  }
  if (v.IsBool()) return v.GetBool() ? "true" : "false";
  return "";
}

// A BMC's names may hold control bytes; they must not reach the terminal.
std::string Printable(std::string s) {
  for (char& c : s)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  return s;
}

}  // namespace

bool SensorsTable(const std::string& json, std::string& table) {
  rapidjson::Document doc;
  doc.Parse(json.c_str(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto members = doc.FindMember("Members");
  if (members == doc.MemberEnd() || !members->value.IsArray()) return false;

  std::vector<std::vector<std::string>> rows = {{"NAME", "READING", "UNITS", "HEALTH"}};
  for (const auto& m : members->value.GetArray()) {
    std::string name = Text(m, "Name");
    if (name.empty()) name = Text(m, "Id");
    if (name.empty()) name = Text(m, "@odata.id");
    std::string reading = Text(m, "Reading");
    std::string health;
    if (m.IsObject() && m.HasMember("Status")) health = Text(m["Status"], "Health");
    rows.push_back({Printable(name), reading.empty() ? "-" : Printable(reading),
                    Printable(Text(m, "ReadingUnits")), health.empty() ? "-" : Printable(health)});
  }
  std::vector<size_t> width(4, 0);
  for (const auto& r : rows)
    for (size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
  table.clear();
  for (const auto& r : rows) {
    std::string line;
    for (size_t i = 0; i < r.size(); ++i) {
      line += r[i];
      if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    table += line + "\n";
  }
  return true;
}
