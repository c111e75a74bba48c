#include "sensors_table.h"

#include <algorithm>
#include <array>
#include <vector>

#include "formatted.h"
#include "toolkit/bmc_text.h"

namespace {

constexpr int kLowerCritical = 4;
constexpr int kUpperCritical = 1;

std::string OrDash(const std::string& text) {
  return text.empty() ? "-" : toolkit::Printable(text);
}

std::string Number(const std::optional<double>& value) {
  return value ? Formatted("%.6g", *value) : "";
}

// "3..99", "..42", "480..": the critical thresholds the BMC gives.
std::string Critical(const toolkit::Sensor& s) {
  const auto& low = s.thresholds[kLowerCritical];
  const auto& high = s.thresholds[kUpperCritical];
  if (!low && !high) return "-";
  return Number(low) + ".." + Number(high);
}

}  // namespace

std::string ReadingsTable(const toolkit::Readings& readings) {
  const size_t first = readings.chassis.size() > 1 ? 0 : 1;  // the chassis column when it tells
  std::vector<std::array<std::string, 6>> rows = {
      {"CHASSIS", "NAME", "READING", "UNITS", "HEALTH", "CRITICAL"}};
  for (const toolkit::Sensor& s : readings.sensors) {
    const std::string reading = Number(s.reading);
    rows.push_back({toolkit::Printable(s.chassis),
                    toolkit::Printable(s.name.empty() ? s.id : s.name),
                    reading.empty() ? "-" : reading, toolkit::Printable(s.units), OrDash(s.health),
                    Critical(s)});
  }
  std::array<size_t, 6> width{};
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
  for (const toolkit::Chassis& c : readings.chassis) {
    std::string figures;
    if (c.hasPower) figures += "power " + (c.powerWatts ? Number(c.powerWatts) + " W" : "-");
    if (c.hasEnergy) {
      figures += std::string(figures.empty() ? "" : ", ") + "energy " +
                 (c.energyJoules ? Number(c.energyJoules) + " J" : "-");
    }
    if (!figures.empty()) table += "chassis " + toolkit::Printable(c.id) + ": " + figures + "\n";
  }
  return table;
}
