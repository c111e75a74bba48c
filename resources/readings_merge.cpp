#include "resources/readings_merge.h"

#include <algorithm>
#include <cctype>
#include <unordered_map>

#include "resources/json_output.h"

namespace redfish {

namespace {

struct Place {
  size_t chassis;
  size_t index;
};

// Names compare ignoring case and runs of blanks.
std::string Folded(const std::string& name) {
  std::string out;
  bool blank = false;
  for (unsigned char c : name) {
    if (std::isspace(c)) {
      blank = !out.empty();
      continue;
    }
    if (blank) out.push_back(' ');
    blank = false;
    out.push_back(static_cast<char>(std::tolower(c)));
  }
  return out;
}

bool Deprecated(SourceKind kind) {
  return kind == SourceKind::Thermal || kind == SourceKind::Power;
}

// The newer model that makes a deprecated reading redundant, by Replaced.
constexpr bool NewerModels::*kReplacedBy[] = {nullptr, &NewerModels::temperatures,
                                              &NewerModels::fans, &NewerModels::powerSupplies,
                                              &NewerModels::chassisPower};

bool ReplacedByNewer(Replaced replaced, const NewerModels& newer) {
  bool NewerModels::*by = kReplacedBy[static_cast<size_t>(replaced)];
  return by != nullptr && newer.*by;
}

// The resource a source is of, by SourceKind.
constexpr const char* kResourceNames[] = {
    "Sensors",        "ThermalSubsystem",   "ThermalSubsystem",
    "PowerSubsystem", "EnvironmentMetrics", "Thermal",
    "Power"};

// A figure in watts or joules from a reading in the units it came in; none
// for units that are not of that quantity.
std::optional<double> InBaseUnit(const SensorReading& r, bool energy) {
  if (!r.reading) return std::nullopt;
  static const struct {
    const char* units;
    double scale;
    bool energy;
  } kScales[] = {{"W", 1, false},      {"Watts", 1, false}, {"kW", 1e3, false},
                 {"mW", 1e-3, false},  {"J", 1, true},      {"kJ", 1e3, true},
                 {"W.h", 3.6e3, true}, {"Wh", 3.6e3, true}, {"kW.h", 3.6e6, true},
                 {"kWh", 3.6e6, true}};
  for (const auto& s : kScales) {
    if (s.energy == energy && r.units == s.units) return *r.reading * s.scale;
  }
  return std::nullopt;
}

class Merger {
 public:
  Merger(const std::vector<ChassisOfReadings>& chassis, std::vector<ChassisReadings>& out)
      : out_(out), names_(chassis.size()) {
    out_.clear();
    for (const ChassisOfReadings& c : chassis) {
      byUri_.emplace(c.odataId, out_.size());
      out_.push_back({c.id, c.odataId, {}, {}, {}, {}, {}, {}});
    }
  }

  // A Sensor of its chassis: the first with its source counts.
  bool AddSensor(size_t chassis, Offer& offer) {
    if (bySource_.count(offer.reading.source) != 0) return false;
    const size_t index = out_[chassis].sensors.size();
    for (const std::string* name : {&offer.reading.name, &offer.reading.id}) {
      if (!name->empty()) names_[chassis].emplace(Folded(*name), index);
    }
    Add(chassis, offer);
    return true;
  }

  // Any other offer: true when it gave the result something.
  bool Consider(size_t chassis, Offer& offer) {
    const std::optional<Place> twin = Twin(chassis, offer);
    bool used = false;
    Place place{};
    if (!twin) {
      const size_t owner = Owner(chassis, offer);
      place = {owner, Add(owner, offer)};
      used = true;
    } else {
      place = *twin;
      SensorReading& kept = out_[place.chassis].sensors[place.index];
      if (!kept.reading && offer.reading.reading) {
        kept.reading = offer.reading.reading;
        kept.units = offer.reading.units;
        if (kept.type.empty()) kept.type = offer.reading.type;
        used = true;
      }
    }
    ChassisReadings& c = out_[chassis];
    const std::string& source = out_[place.chassis].sensors[place.index].source;
    if (offer.chassisPower && c.powerSource.empty()) {
      c.powerSource = source;
      used = true;
    }
    if (offer.chassisEnergy && c.energySource.empty()) {
      c.energySource = source;
      used = true;
    }
    return used;
  }

  void NoteSource(size_t chassis, SourceKind kind) {
    std::vector<std::string>& sources = out_[chassis].sources;
    const std::string name = kResourceNames[static_cast<size_t>(kind)];
    if (std::find(sources.begin(), sources.end(), name) == sources.end()) sources.push_back(name);
  }

  // The figures' numbers, and only the chassis with readings left.
  void Finish() {
    for (ChassisReadings& c : out_) {
      if (!c.powerSource.empty()) c.powerWatts = InBaseUnit(*Find(c.powerSource), false);
      if (!c.energySource.empty()) c.energyJoules = InBaseUnit(*Find(c.energySource), true);
    }
    out_.erase(std::remove_if(out_.begin(), out_.end(),
                              [](const ChassisReadings& c) { return c.sensors.empty(); }),
               out_.end());
  }

 private:
  size_t Add(size_t chassis, Offer& offer) {
    std::vector<SensorReading>& sensors = out_[chassis].sensors;
    bySource_.emplace(offer.reading.source, Place{chassis, sensors.size()});
    sensors.push_back(std::move(offer.reading));
    return sensors.size() - 1;
  }

  std::optional<Place> Twin(size_t chassis, const Offer& offer) const {
    auto it = bySource_.find(offer.reading.source);
    if (it != bySource_.end()) return it->second;
    if (offer.linked) return std::nullopt;
    for (const std::string& alias : offer.alias) {
      if (alias.empty()) continue;
      auto named = names_[chassis].find(Folded(alias));
      if (named != names_[chassis].end()) return Place{chassis, named->second};
    }
    return std::nullopt;
  }

  // A sensor found only through an excerpt belongs to the chassis whose
  // Sensors hold it ("/redfish/v1/Chassis/<id>/..."), else to the offering one.
  size_t Owner(size_t chassis, const Offer& offer) const {
    if (!offer.linked) return chassis;
    const std::string& uri = offer.reading.source;
    size_t end = 0;
    for (int segment = 0; segment < 4 && end != std::string::npos; ++segment) {
      end = uri.find('/', end + 1);
    }
    auto it = byUri_.find(uri.substr(0, end));
    return it != byUri_.end() ? it->second : chassis;
  }

  const SensorReading* Find(const std::string& source) const {
    const Place& p = bySource_.at(source);
    return &out_[p.chassis].sensors[p.index];
  }

  std::vector<ChassisReadings>& out_;
  std::unordered_map<std::string, Place> bySource_;
  std::unordered_map<std::string, size_t> byUri_;  // chassis by "@odata.id"
  std::vector<std::unordered_map<std::string, size_t>> names_;
};

}  // namespace

void MergeReadings(const std::vector<ChassisOfReadings>& chassis,
                   const std::vector<SourceDocument>& documents, std::vector<ChassisReadings>& out,
                   std::vector<bool>& used, ReadNotes& notes) {
  Merger merger(chassis, out);
  used.assign(documents.size(), false);
  std::vector<Offer> offers;
  // Sensors first, so that every excerpt can find its sensor; then the newer
  // models' excerpts; the deprecated arrays last.
  for (int pass = 0; pass < 3; ++pass) {
    for (size_t i = 0; i < documents.size(); ++i) {
      const SourceDocument& d = documents[i];
      const int passOf = d.kind == SourceKind::Sensor ? 0 : Deprecated(d.kind) ? 2 : 1;
      if (passOf != pass || d.document == nullptr || d.chassis >= chassis.size()) continue;
      offers.clear();
      OffersOf(d.kind, *d.document, d.path, offers, notes);
      const NewerModels& newer = chassis[d.chassis].newer;
      for (Offer& offer : offers) {
        if (ReplacedByNewer(offer.replaced, newer)) continue;
        const bool gave =
            pass == 0 ? merger.AddSensor(d.chassis, offer) : merger.Consider(d.chassis, offer);
        if (gave) {
          used[i] = true;
          merger.NoteSource(d.chassis, d.kind);
        }
      }
    }
  }
  merger.Finish();
}

std::string ReadingsDocument(const std::vector<ChassisReadings>& chassis) {
  return JsonObjectText([&](JsonWriter& w) {
    WriteObjects(w, "Chassis", chassis, [&](const ChassisReadings& c) {
      WriteText(w, "Id", c.id);
      WriteText(w, "@odata.id", c.odataId);
      w.Key("Sources");
      w.StartArray();
      for (const std::string& s : c.sources) w.String(s.c_str());
      w.EndArray();
      WriteNumber(w, "PowerWatts", c.powerWatts);
      WriteText(w, "PowerSource", c.powerSource);
      WriteNumber(w, "EnergyJoules", c.energyJoules);
      WriteText(w, "EnergySource", c.energySource);
      WriteObjects(w, "Sensors", c.sensors, [&](const SensorReading& s) {
        WriteText(w, "Id", s.id);
        WriteText(w, "Name", s.name);
        WriteNumber(w, "Reading", s.reading);
        WriteText(w, "ReadingUnits", s.units);
        WriteText(w, "ReadingType", s.type);
        WriteText(w, "PhysicalContext", s.physicalContext);
        WriteText(w, "Health", s.health);
        WriteText(w, "State", s.state);
        w.Key("Thresholds");
        w.StartObject();
        for (int i = 0; i < kThresholdCount; ++i)
          WriteNumber(w, kThresholdNames[i], s.thresholds[i]);
        w.EndObject();
        WriteText(w, "DataSourceUri", s.source);
      });
    });
  });
}

}  // namespace redfish
