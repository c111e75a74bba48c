#include "resources/readings.h"

#include <cstring>

#include "utils/json_access.h"

namespace redfish {

const char* const kThresholdNames[kThresholdCount] = {
    "UpperCaution", "UpperCritical", "UpperFatal", "LowerCaution", "LowerCritical", "LowerFatal"};

namespace {

using Value = rapidjson::Value;

std::string StatusField(const Value& object, const char* name) {
  const Value* status = JsonMember(object, "Status");
  return status != nullptr ? JsonText(*status, name) : std::string();
}

// A number, or none: absent and null are none; anything else is noted.
std::optional<double> Number(const Value& object, const char* name, const std::string& where,
                             ReadNotes& notes) {
  const Value* value = JsonMember(object, name);
  if (value == nullptr || value->IsNull()) return std::nullopt;
  if (value->IsNumber()) return value->GetDouble();
  notes.Add(where + ": " + name + " is not a number");
  return std::nullopt;
}

// The units a Sensor's ReadingType implies, for a sensor that leaves its
// ReadingUnits out (an explicit "" stays "": such BMCs use it for discrete
// states, whose 0 is no temperature).
const char* UnitsOfType(const std::string& type) {
  static const struct {
    const char* type;
    const char* units;
  } kTypes[] = {{"Temperature", "Cel"},   {"Voltage", "V"},           {"Current", "A"},
                {"Power", "W"},           {"Rotational", "RPM"},      {"Percent", "%"},
                {"Humidity", "%"},        {"Frequency", "Hz"},        {"EnergyJoules", "J"},
                {"EnergykWh", "kW.h"},    {"EnergyWh", "W.h"},        {"Pressure", "Pa"},
                {"PressurekPa", "kPa"},   {"Altitude", "m"},          {"AirFlow", "[ft_i]3/min"},
                {"AirFlowCMM", "m3/min"}, {"LiquidFlowLPM", "L/min"}, {"ChargeAh", "A.h"}};
  for (const auto& t : kTypes) {
    if (type == t.type) return t.units;
  }
  return "";
}

// An object member that must be an object when present.
const Value* ObjectMember(const Value& object, const char* name, const std::string& where,
                          ReadNotes& notes) {
  const Value* value = JsonMember(object, name);
  if (value == nullptr || value->IsNull()) return nullptr;
  if (value->IsObject()) return value;
  notes.Add(where + ": " + name + " is not an object");
  return nullptr;
}

void StatusOf(const Value& object, SensorReading& r) {
  r.health = StatusField(object, "Health");
  r.state = StatusField(object, "State");
}

bool Absent(const Value& object) { return StatusField(object, "State") == "Absent"; }

// A Sensor resource: false when it is absent or only a link.
bool SensorOffer(const Value& s, const std::string& fallbackSource, Offer& offer,
                 ReadNotes& notes) {
  if (Absent(s)) return false;
  SensorReading& r = offer.reading;
  std::string uri = JsonText(s, "@odata.id");
  r.id = JsonText(s, "Id");
  r.name = JsonText(s, "Name");
  if (r.id.empty() && r.name.empty()) return false;
  r.source = TrimmedUri(uri.empty() ? fallbackSource : uri);
  if (r.id.empty()) r.id = LastSegment(r.source);
  const std::string& where = r.source;
  r.reading = Number(s, "Reading", where, notes);
  r.type = JsonText(s, "ReadingType");
  const Value* units = JsonMember(s, "ReadingUnits");
  if (units == nullptr || units->IsNull()) {
    r.units = UnitsOfType(r.type);
  } else if (units->IsString()) {
    r.units.assign(units->GetString(), units->GetStringLength());
  } else {
    notes.Add(where + ": ReadingUnits is not a string");
  }
  r.physicalContext = JsonText(s, "PhysicalContext");
  StatusOf(s, r);
  if (const Value* thresholds = ObjectMember(s, "Thresholds", where, notes)) {
    for (int i = 0; i < kThresholdCount; ++i) {
      const std::string at = where + " threshold " + kThresholdNames[i];
      const Value* t = ObjectMember(*thresholds, kThresholdNames[i], where, notes);
      if (t == nullptr) continue;
      if (JsonMember(*t, "Reading") == nullptr) {
        notes.Add(at + " has no Reading");
        continue;
      }
      r.thresholds[i] = Number(*t, "Reading", at, notes);
    }
  }
  return true;
}

// One property of an excerpt-holding resource, with what its name implies.
struct Property {
  const char* name;
  const char* units;
  const char* type;
  const char* label;  // names a reading found only here
  bool array;
  bool fan;
};

constexpr Property kThermalMetrics[] = {
    {"TemperatureReadingsCelsius", "Cel", "Temperature", "temperature", true, false},
};
constexpr const char* kSummaries[] = {"Internal", "Intake", "Exhaust", "Ambient"};

// What EnvironmentMetrics and PowerSupplyMetrics both have.
constexpr Property kTemperature{"TemperatureCelsius", "Cel", "Temperature",
                                "temperature",        false, false};
constexpr Property kEnergykWh{"EnergykWh", "kW.h", "EnergykWh", "energy", false, false};
constexpr Property kFanSpeeds{"FanSpeedsPercent", "%", "Percent", "fan speed", true, true};

constexpr Property kEnvironmentMetrics[] = {
    kTemperature,
    {"HumidityPercent", "%", "Humidity", "humidity", false, false},
    {"DewPointCelsius", "Cel", "Temperature", "dew point", false, false},
    {"AbsoluteHumidity", "g/m3", "AbsoluteHumidity", "absolute humidity", false, false},
    {"PowerWatts", "W", "Power", "power", false, false},
    {"EnergyJoules", "J", "EnergyJoules", "energy", false, false},
    kEnergykWh,
    kFanSpeeds,
};

constexpr Property kPowerSupplyMetrics[] = {
    {"InputVoltage", "V", "Voltage", "input voltage", false, false},
    {"InputCurrentAmps", "A", "Current", "input current", false, false},
    {"InputPowerWatts", "W", "Power", "input power", false, false},
    {"OutputPowerWatts", "W", "Power", "output power", false, false},
    kEnergykWh,
    {"FrequencyHz", "Hz", "Frequency", "input frequency", false, false},
    kTemperature,
    {"FanSpeedPercent", "%", "Percent", "fan speed", false, true},
    kFanSpeeds,
    {"RailVoltage", "V", "Voltage", "rail voltage", true, false},
    {"RailCurrentAmps", "A", "Current", "rail current", true, false},
    {"RailPowerWatts", "W", "Power", "rail power", true, false},
};

// An excerpt (a SensorExcerpt and its kin): the reading of the sensor its
// DataSourceUri names, else one of its own, known by where it was found.
// A fan's excerpt may carry only SpeedRPM. Nothing when it holds no reading.
void ExcerptOffer(const Value& e, const std::string& path, const std::string& pointer,
                  const Property& p, const std::string& id, const std::string& name,
                  std::vector<Offer>& offers, ReadNotes& notes) {
  const std::string where = path + "#" + pointer;
  if (!e.IsObject()) {
    if (!e.IsNull()) notes.Add(where + " is not an object");
    return;
  }
  Offer offer;
  SensorReading& r = offer.reading;
  r.units = p.units;
  r.type = p.type;
  if (JsonMember(e, "Reading") != nullptr) {
    r.reading = Number(e, "Reading", where, notes);
  } else if (p.fan && JsonMember(e, "SpeedRPM") != nullptr) {
    r.reading = Number(e, "SpeedRPM", where, notes);
    r.units = "RPM";
    r.type = "Rotational";
  } else {
    return;
  }
  if (p.fan) r.physicalContext = "Fan";
  const std::string link = TrimmedUri(JsonText(e, "DataSourceUri"));
  offer.linked = !link.empty();
  r.source = offer.linked ? link : where;
  r.id = offer.linked ? LastSegment(link) : id;
  r.name = JsonText(e, "DeviceName");
  if (!offer.linked) offer.alias[0] = r.name;
  if (r.name.empty()) r.name = offer.linked ? r.id : name;
  if (r.physicalContext.empty()) r.physicalContext = JsonText(e, "PhysicalContext");
  offers.push_back(std::move(offer));
}

template <size_t N>
void PropertiesOf(const Value& document, const Property (&properties)[N], const std::string& path,
                  const std::string& idPrefix, const std::string& namePrefix,
                  std::vector<Offer>& offers, ReadNotes& notes) {
  for (const Property& p : properties) {
    const Value* value = JsonMember(document, p.name);
    if (value == nullptr || value->IsNull()) continue;
    const std::string id = idPrefix + p.name;
    const std::string name = namePrefix + p.label;
    if (!p.array) {
      ExcerptOffer(*value, path, std::string("/") + p.name, p, id, name, offers, notes);
      continue;
    }
    if (!value->IsArray()) {
      notes.Add(path + ": " + p.name + " is not an array");
      continue;
    }
    for (rapidjson::SizeType i = 0; i < value->Size(); ++i) {
      const std::string n = std::to_string(i);
      std::string pointer = "/";
      pointer.append(p.name).append("/").append(n);
      ExcerptOffer((*value)[i], path, pointer, p, std::string(id).append("/").append(n),
                   std::string(name).append(" ").append(n), offers, notes);
    }
  }
}

void ThermalMetricsOffers(const Value& d, const std::string& path, std::vector<Offer>& offers,
                          ReadNotes& notes) {
  PropertiesOf(d, kThermalMetrics, path, "ThermalMetrics/", "", offers, notes);
  const Value* summary = JsonMember(d, "TemperatureSummaryCelsius");
  if (summary == nullptr || !summary->IsObject()) return;
  const Property p{"", "Cel", "Temperature", "", false, false};
  for (const char* name : kSummaries) {
    const Value* e = JsonMember(*summary, name);
    if (e == nullptr) continue;
    ExcerptOffer(*e, path, std::string("/TemperatureSummaryCelsius/") + name, p,
                 std::string("ThermalMetrics/") + name, std::string(name) + " temperature", offers,
                 notes);
  }
}

void EnvironmentMetricsOffers(const Value& d, const std::string& path, std::vector<Offer>& offers,
                              ReadNotes& notes) {
  const size_t first = offers.size();
  PropertiesOf(d, kEnvironmentMetrics, path, "EnvironmentMetrics/", "chassis ", offers, notes);
  // EnergykWh and EnergyJoules are one counter in two units: joules win.
  const bool joules = JsonMember(d, "EnergyJoules") != nullptr;
  for (size_t i = first; i < offers.size();) {
    Offer& o = offers[i];
    const std::string& type = o.reading.type;
    if (type == "EnergykWh" && joules) {
      offers.erase(offers.begin() + static_cast<std::ptrdiff_t>(i));
      continue;
    }
    o.chassisPower = type == "Power";
    o.chassisEnergy = type == "EnergyJoules" || type == "EnergykWh";
    ++i;
  }
}

// The supply's id is the path segment before "/Metrics".
void PowerSupplyMetricsOffers(const Value& d, const std::string& path, std::vector<Offer>& offers,
                              ReadNotes& notes) {
  std::string supply = path;
  const std::string tail = "/Metrics";
  if (supply.size() > tail.size() &&
      supply.compare(supply.size() - tail.size(), tail.size(), tail) == 0) {
    supply.resize(supply.size() - tail.size());
  }
  supply = LastSegment(supply);
  PropertiesOf(d, kPowerSupplyMetrics, path, supply + "/", supply + " ", offers, notes);
}

// A Fan of ThermalSubsystem. A SpeedPercent that names its sensor is that
// sensor's one reading; one that does not offers its percentage and its
// SpeedRPM, each the same as a sensor of the chassis named like the fan.
void FanOffers(const Value& d, const std::string& path, std::vector<Offer>& offers,
               ReadNotes& notes) {
  if (Absent(d)) return;
  const Value* speed = ObjectMember(d, "SpeedPercent", path, notes);
  if (speed == nullptr) return;
  std::string id = JsonText(d, "Id");
  if (id.empty()) id = LastSegment(path);
  std::string name = JsonText(d, "Name");
  if (name.empty()) name = id;
  const Property percent{"SpeedPercent", "%", "Percent", "", false, true};
  const size_t first = offers.size();
  const bool linked = !JsonText(*speed, "DataSourceUri").empty();
  if (linked || JsonMember(*speed, "Reading") != nullptr) {
    ExcerptOffer(*speed, path, "/SpeedPercent", percent, id + "/SpeedPercent", name + " speed",
                 offers, notes);
  }
  if (!linked && JsonMember(*speed, "SpeedRPM") != nullptr) {
    const Property rpm{"SpeedRPM", "RPM", "Rotational", "", false, false};
    Offer offer;
    offer.reading.reading = Number(*speed, "SpeedRPM", path, notes);
    offer.reading.units = rpm.units;
    offer.reading.type = rpm.type;
    offer.reading.physicalContext = "Fan";
    offer.reading.id = id + "/SpeedRPM";
    offer.reading.name = name + " speed";
    offer.reading.source = path + "#/SpeedPercent/SpeedRPM";
    offers.push_back(std::move(offer));
  }
  for (size_t i = first; i < offers.size(); ++i) {
    Offer& o = offers[i];
    StatusOf(d, o.reading);
    if (!o.linked) {
      o.alias[0] = id;
      o.alias[1] = JsonText(d, "Name");
    }
  }
}

// The deprecated arrays: per entry, the reading under its property name (or
// an older schema's), the units it implies unless the entry gives its own.
struct ArrayKind {
  const char* array;
  const char* readings[3];
  const char* units;
  const char* type;
  Replaced replaced;
};

// Older fans: "ReadingRPM" (the first Thermal schema) and "CurrentReading"
// with "Units" (an older firmware's names).
constexpr ArrayKind kThermalArrays[] = {
    {"Temperatures", {"ReadingCelsius"}, "Cel", "Temperature", Replaced::Temperatures},
    {"Fans", {"Reading", "ReadingRPM", "CurrentReading"}, "RPM", "Rotational", Replaced::Fans},
};
constexpr ArrayKind kPowerArrays[] = {
    {"Voltages", {"ReadingVolts"}, "V", "Voltage", Replaced::None},
    {"PowerControl", {"PowerConsumedWatts"}, "W", "Power", Replaced::PowerControl},
};

constexpr const char* kOldThresholds[kThresholdCount] = {
    "UpperThresholdNonCritical", "UpperThresholdCritical", "UpperThresholdFatal",
    "LowerThresholdNonCritical", "LowerThresholdCritical", "LowerThresholdFatal"};

// An entry's source: its own "@odata.id" ("…/Thermal#/Fans/0"), else where
// it stands in the document.
std::string EntrySource(const Value& entry, const std::string& path, const char* array,
                        size_t index) {
  std::string id = JsonText(entry, "@odata.id");
  if (!id.empty() && id.find('#') != std::string::npos) return id;
  return path + "#/" + array + "/" + std::to_string(index);
}

template <size_t N>
void ArraysOf(const Value& d, const ArrayKind (&kinds)[N], const std::string& path,
              std::vector<Offer>& offers, ReadNotes& notes) {
  for (const ArrayKind& kind : kinds) {
    const Value* entries = JsonMember(d, kind.array);
    if (entries == nullptr || entries->IsNull()) continue;
    if (!entries->IsArray()) {
      notes.Add(path + ": " + kind.array + " is not an array");
      continue;
    }
    for (rapidjson::SizeType index = 0; index < entries->Size(); ++index) {
      const Value& entry = (*entries)[index];
      if (!entry.IsObject() || Absent(entry)) continue;
      Offer offer;
      SensorReading& r = offer.reading;
      r.source = EntrySource(entry, path, kind.array, index);
      // Member ids repeat across the arrays ("0" in each): the array names it.
      std::string member = JsonText(entry, "MemberId");
      if (member.empty()) member = std::to_string(index);
      r.id = std::string(kind.array) + "/" + member;
      r.name = JsonText(entry, "Name");
      if (r.name.empty()) r.name = JsonText(entry, "FanName");  // older Thermal schemas
      offer.alias[0] = r.name;
      if (r.name.empty()) r.name = std::string(kind.array) + " " + member;
      for (const char* name : kind.readings) {
        if (name == nullptr || r.reading) break;
        r.reading = Number(entry, name, r.source, notes);
      }
      r.units = JsonText(entry, "ReadingUnits");
      if (r.units.empty()) r.units = JsonText(entry, "Units");
      if (r.units.empty()) r.units = kind.units;
      r.type = kind.type;
      if (kind.replaced == Replaced::Fans && (r.units == "Percent" || r.units == "%")) {
        r.type = "Percent";
      }
      r.physicalContext = JsonText(entry, "PhysicalContext");
      if (kind.replaced == Replaced::Fans && r.physicalContext.empty()) r.physicalContext = "Fan";
      StatusOf(entry, r);
      for (int i = 0; i < kThresholdCount; ++i) {
        r.thresholds[i] = Number(entry, kOldThresholds[i], r.source, notes);
      }
      offer.replaced = kind.replaced;
      // The first power control is the chassis' own total; the others
      // (processors, memory) are parts of it.
      offer.chassisPower = kind.replaced == Replaced::PowerControl && index == 0;
      if (offer.chassisPower) offer.alias[0].clear();
      offers.push_back(std::move(offer));
    }
  }
}

// A supply of the deprecated Power resource holds several readings; the
// output is read from PowerOutputWatts, else the older LastPowerOutputWatts.
void PowerSuppliesOf(const Value& d, const std::string& path, std::vector<Offer>& offers,
                     ReadNotes& notes) {
  const Value* supplies = JsonMember(d, "PowerSupplies");
  if (supplies == nullptr || supplies->IsNull()) return;
  if (!supplies->IsArray()) {
    notes.Add(path + ": PowerSupplies is not an array");
    return;
  }
  static const struct {
    const char* names[2];
    const char* suffix;
    const char* label;
    const char* units;
    const char* type;
  } kReadings[] = {
      {{"LineInputVoltage"}, "InputVoltage", "input voltage", "V", "Voltage"},
      {{"PowerInputWatts"}, "InputPower", "input power", "W", "Power"},
      {{"PowerOutputWatts", "LastPowerOutputWatts"}, "OutputPower", "output power", "W", "Power"},
  };
  for (rapidjson::SizeType index = 0; index < supplies->Size(); ++index) {
    const Value& entry = (*supplies)[index];
    if (!entry.IsObject() || Absent(entry)) continue;
    std::string member = JsonText(entry, "MemberId");
    if (member.empty()) member = std::to_string(index);
    std::string name = JsonText(entry, "Name");
    if (name.empty()) name = "PowerSupplies " + member;
    const std::string base = EntrySource(entry, path, "PowerSupplies", index);
    for (const auto& k : kReadings) {
      const char* property = nullptr;
      for (const char* n : k.names) {
        if (n != nullptr && property == nullptr && JsonMember(entry, n) != nullptr) property = n;
      }
      if (property == nullptr) continue;
      Offer offer;
      SensorReading& r = offer.reading;
      r.source = base + "/" + property;
      r.reading = Number(entry, property, r.source, notes);
      r.id = "PowerSupplies/" + member + "/" + k.suffix;
      r.name = name + " " + k.label;
      r.units = k.units;
      r.type = k.type;
      r.physicalContext = "PowerSupply";
      StatusOf(entry, r);
      offer.replaced = Replaced::PowerSupplies;
      offers.push_back(std::move(offer));
    }
  }
}

}  // namespace

void ReadNotes::Add(std::string note) {
  if (kept.size() < kKept) {
    kept.push_back(std::move(note));
  } else {
    ++more;
  }
}

std::string TrimmedUri(std::string uri) {
  while (uri.size() > 1 && uri.back() == '/') uri.pop_back();
  return uri;
}

std::string LastSegment(const std::string& uri) {
  const std::string trimmed = TrimmedUri(uri);
  return trimmed.substr(trimmed.find_last_of('/') + 1);
}

void OffersOf(SourceKind kind, const Value& document, const std::string& path,
              std::vector<Offer>& offers, ReadNotes& notes) {
  if (!document.IsObject()) {
    notes.Add(path + ": the answer is not a JSON object");
    return;
  }
  switch (kind) {
    case SourceKind::Sensor: {
      Offer offer;
      if (SensorOffer(document, path, offer, notes)) offers.push_back(std::move(offer));
      return;
    }
    case SourceKind::ThermalMetrics:
      return ThermalMetricsOffers(document, path, offers, notes);
    case SourceKind::EnvironmentMetrics:
      return EnvironmentMetricsOffers(document, path, offers, notes);
    case SourceKind::PowerSupplyMetrics:
      return PowerSupplyMetricsOffers(document, path, offers, notes);
    case SourceKind::Fan:
      return FanOffers(document, path, offers, notes);
    case SourceKind::Thermal:
      return ArraysOf(document, kThermalArrays, path, offers, notes);
    case SourceKind::Power:
      ArraysOf(document, kPowerArrays, path, offers, notes);
      return PowerSuppliesOf(document, path, offers, notes);
  }
}

}  // namespace redfish
