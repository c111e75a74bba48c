#include "health.h"

#include <algorithm>
#include <vector>

#include "formatted.h"
#include "toolkit/bmc_text.h"

namespace {

using Row = std::vector<std::string>;

std::string Cell(const std::string& text) { return text.empty() ? "-" : toolkit::Printable(text); }

// Columns two spaces apart, each as wide as its widest cell.
std::string Table(const std::vector<Row>& rows) {
  std::vector<size_t> width;
  for (const Row& r : rows) {
    width.resize(std::max(width.size(), r.size()));
    for (size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], toolkit::Columns(r[i]));
  }
  std::string out;
  for (const Row& r : rows) {
    std::string line;
    for (size_t i = 0; i < r.size(); ++i) {
      line += r[i];
      if (i + 1 < r.size()) line += std::string(width[i] - toolkit::Columns(r[i]) + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out += line + "\n";
  }
  return out;
}

std::string Age(double at, double now) {
  if (at <= 0) return "never";
  const double seconds = std::max(0.0, now - at);
  if (seconds < 90) return Formatted("%.0f s ago", seconds);
  if (seconds < 5400) return Formatted("%.0f min ago", seconds / 60);
  return Formatted("%.1f h ago", seconds / 3600);
}

Row PartRow(const toolkit::HealthPart& p) {
  return {Cell(p.health), Cell(p.kind), Cell(p.id), Cell(p.parent), Cell(p.name)};
}

}  // namespace

std::string HealthText(const toolkit::Health& h, bool all, double now) {
  std::string out = "health: " +
                    (h.health.empty() ? std::string("unknown (no part reports one)")
                                      : toolkit::Printable(h.health)) +
                    "\n";
  if (!h.causes.empty()) {
    std::vector<Row> rows = {{"HEALTH", "KIND", "ID", "IN", "NAME"}};
    for (const toolkit::HealthPart& c : h.causes) rows.push_back(PartRow(c));
    out += Table(rows);
    if (h.causesLeftOut != 0) out += "... and " + std::to_string(h.causesLeftOut) + " more\n";
  }
  size_t absent = 0;
  for (const toolkit::HealthPart& p : h.parts) absent += p.state == "Absent";
  out += std::to_string(h.parts.size() - absent) + " parts";
  if (absent != 0) out += " (and " + std::to_string(absent) + " absent)";
  out += " read " + Age(h.partsAt, now) + ", firmware " + Age(h.firmwareAt, now);
  if (h.partsLeftOut != 0) out += "; " + std::to_string(h.partsLeftOut) + " members left out";
  if (h.gaps != 0) out += "; " + std::to_string(h.gaps) + " reads the BMC failed";
  out += "\n";
  if (!all) return out;

  std::vector<Row> status = {{"KIND", "ID", "STATE", "HEALTH", "ROLLUP"}};
  for (const auto* list : {&h.systems, &h.chassis}) {
    for (const toolkit::HealthPart& p : *list) {
      status.push_back({p.kind, Cell(p.id), Cell(p.state), Cell(p.health), Cell(p.healthRollup)});
    }
  }
  out += "\n" + Table(status);
  std::vector<Row> parts = {{"HEALTH", "KIND", "ID", "IN", "NAME", "STATE"}};
  for (const toolkit::HealthPart& p : h.parts) {
    Row row = PartRow(p);
    row.push_back(Cell(p.state));
    parts.push_back(std::move(row));
  }
  out += "\n" + Table(parts);
  std::vector<Row> firmware = {{"FIRMWARE", "ID", "NAME", "VERSION"}};
  for (const toolkit::FirmwareItem& f : h.firmware) {
    firmware.push_back({Cell(f.kind), Cell(f.id), Cell(f.name), Cell(f.version)});
  }
  out += "\n" + Table(firmware);
  return out;
}
