#include "health_metrics.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <iterator>
#include <map>
#include <set>
#include <vector>

#include "exposition.h"

namespace {

// The kinds exported, in the order the library lists them.
constexpr const char* kKinds[] = {"System", "Chassis", "Manager",       "PowerSupply",
                                  "Fan",    "Memory",  "Processor",     "StorageController",
                                  "Drive",  "Volume",  "NetworkAdapter"};

// A kind as its label value, in snake case ("PowerSupply" is "power_supply");
// "" for a kind not exported.
std::string KindLabel(const std::string& kind) {
  if (std::find(std::begin(kKinds), std::end(kKinds), kind) == std::end(kKinds)) return "";
  std::string label;
  for (const char c : kind) {
    if (std::isupper(static_cast<unsigned char>(c)) && !label.empty()) label += '_';
    label += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return label;
}

double Value(const std::string& health) {
  const int value = toolkit::HealthValue(health);
  return value < 0 ? std::nan("") : value;
}

}  // namespace

void RenderHealth(std::string& out, const toolkit::Health& h, double now) {
  Header(out, "bmcredfish_health",
         "The hardware's health: the worst of the BMC's rollups, every part's and every "
         "sensor's health (0 OK, 1 Warning, 2 Critical, NaN none given). "
         "bmcredfish_component_health names the parts.",
         "gauge");
  Sample(out, "bmcredfish_health", "", Value(h.health));

  std::string health, rollup;
  std::map<std::string, size_t> shown, dropped;
  std::set<std::string> seen;
  std::vector<const toolkit::HealthPart*> all;
  for (const auto* list : {&h.systems, &h.chassis, &h.parts}) {
    for (const toolkit::HealthPart& p : *list) all.push_back(&p);
  }
  // A part's Id is unique under what holds it: where one repeats within its
  // kind (every storage's controller "0"), the holder names it.
  std::map<std::pair<std::string, std::string>, size_t> ids;
  for (const toolkit::HealthPart* p : all) ++ids[{p->kind, p->id}];
  for (const toolkit::HealthPart* p : all) {
    const std::string kind = KindLabel(p->kind);
    if (kind.empty() || p->state == "Absent") continue;
    const std::string id =
        ids[{p->kind, p->id}] > 1 && !p->parent.empty() ? p->parent + "/" + p->id : p->id;
    const std::string labels =
        Label("kind", kind) + "," + Label("id", id) + "," + Label("name", p->name);
    if (shown[kind] == kComponentsPerKind) {
      ++dropped[kind];
      continue;
    }
    if (!seen.insert(Label("kind", kind) + "," + Label("id", id)).second) continue;
    ++shown[kind];
    Sample(health, "bmcredfish_component_health", labels, Value(p->health));
    if (p->kind == "System" || p->kind == "Chassis") {
      Sample(rollup, "bmcredfish_component_health_rollup", labels, Value(p->healthRollup));
    }
  }
  WriteMetric(out, "bmcredfish_component_health",
              "A system's, chassis' or part's own health as the BMC reports it (0 OK, 1 Warning, "
              "2 Critical, NaN none given); absent parts are left out.",
              "gauge", health);
  WriteMetric(out, "bmcredfish_component_health_rollup",
              "A system's or chassis' HealthRollup as the BMC reports it (0 OK, 1 Warning, "
              "2 Critical, NaN left empty).",
              "gauge", rollup);
  Header(out, "bmcredfish_components_dropped",
         "Parts of a kind past the exporter's 256 series a kind, not exported.", "gauge");
  for (const char* k : kKinds) {
    const std::string kind = KindLabel(k);
    Sample(out, "bmcredfish_components_dropped", Label("kind", kind),
           static_cast<double>(dropped[kind]));
  }
  Header(out, "bmcredfish_components_unread",
         "Members the library left unread: it follows at most 4096 a read.", "gauge");
  Sample(out, "bmcredfish_components_unread", "", static_cast<double>(h.partsLeftOut));
  Header(out, "bmcredfish_components_age_seconds",
         "Seconds since the parts were last read: when the BMC's rollups or a sensor's health "
         "change, else every 10 minutes.",
         "gauge");
  Sample(out, "bmcredfish_components_age_seconds", "", std::max(0.0, now - h.partsAt));

  std::string firmware;
  std::set<std::string> versions;
  for (const toolkit::FirmwareItem& f : h.firmware) {
    const std::string labels = Label("kind", f.kind) + "," + Label("id", f.id) + "," +
                               Label("name", f.name) + "," + Label("version", f.version);
    if (versions.size() < kComponentsPerKind && versions.insert(labels).second) {
      Sample(firmware, "bmcredfish_firmware_info", labels, 1);
    }
  }
  WriteMetric(out, "bmcredfish_firmware_info",
              "Firmware versions: the BMC's, each system's BIOS and the BMC's firmware inventory; "
              "always 1.",
              "gauge", firmware);
}
