#include "sensors_table.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <cstdio>

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
  return "";
}

// A BMC's names may hold control bytes; they must not reach the terminal.
std::string Printable(std::string s) {
  for (char& c : s)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  return s;
}

std::string OrDash(std::string s) { return s.empty() ? "-" : Printable(std::move(s)); }

}  // namespace

bool ParseReadings(const std::string& json, Readings& readings) {
  rapidjson::Document doc;
  doc.Parse(json.c_str(), json.size());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto chassis = doc.FindMember("Chassis");
  if (chassis == doc.MemberEnd() || !chassis->value.IsArray()) return false;
  readings = Readings{};
  for (const auto& c : chassis->value.GetArray()) {
    if (!c.IsObject()) return false;
    auto sensors = c.FindMember("Sensors");
    if (sensors == c.MemberEnd() || !sensors->value.IsArray()) return false;
    ++readings.chassis;
    if (Text(c, "Source") == "Sensors") ++readings.fromSensors;
    const std::string id = Printable(Text(c, "Id"));
    for (const auto& s : sensors->value.GetArray()) {
      std::string name = Text(s, "Name");
      if (name.empty()) name = Text(s, "Id");
      readings.rows.push_back({id, Printable(name), OrDash(Text(s, "Reading")),
                               Printable(Text(s, "ReadingUnits")), OrDash(Text(s, "Health"))});
    }
  }
  return true;
}

std::string ReadingsTable(const Readings& readings) {
  const size_t first = readings.chassis > 1 ? 0 : 1;  // the chassis column only when it tells
  std::vector<std::array<std::string, 5>> rows = {
      {"CHASSIS", "NAME", "READING", "UNITS", "HEALTH"}};
  rows.insert(rows.end(), readings.rows.begin(), readings.rows.end());
  std::array<size_t, 5> width{};
  for (const auto& r : rows)
    for (size_t i = first; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
  std::string table;
  for (const auto& r : rows) {
    std::string line;
    for (size_t i = first; i < r.size(); ++i) {
      line += r[i];
      if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    table += line + "\n";
  }
  return table;
}
