#include "sensors_table.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "toolkit/bmc_text.h"

namespace {

std::string OrDash(const std::string& text) {
  return text.empty() ? "-" : toolkit::Printable(text);
}

std::string ReadingText(const std::optional<double>& reading) {
  if (!reading) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", *reading);
  return text;
}

}  // namespace

std::string ReadingsTable(const toolkit::Readings& readings) {
  const size_t first = readings.chassis > 1 ? 0 : 1;  // the chassis column only when it tells
  std::vector<std::array<std::string, 5>> rows = {
      {"CHASSIS", "NAME", "READING", "UNITS", "HEALTH"}};
  for (const toolkit::Sensor& s : readings.sensors)
    rows.push_back({toolkit::Printable(s.chassis),
                    toolkit::Printable(s.name.empty() ? s.id : s.name), ReadingText(s.reading),
                    toolkit::Printable(s.units), OrDash(s.health)});
  std::array<size_t, 5> width{};
  for (const auto& r : rows)
    for (size_t i = first; i < r.size(); ++i) width[i] = std::max(width[i], toolkit::Columns(r[i]));
  std::string table;
  for (const auto& r : rows) {
    std::string line;
    for (size_t i = first; i < r.size(); ++i) {
      line += r[i];
      if (i + 1 < r.size()) line += std::string(width[i] - toolkit::Columns(r[i]) + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    table += line + "\n";
  }
  return table;
}
