#include "reading_metrics.h"

#include <cmath>
#include <set>
#include <vector>

#include "exposition.h"

namespace {

using toolkit::Quantity;

struct Family {
  const char* stem;  // the metric is <stem>_<unit>, a threshold <stem>_<kind>_<unit>
  const char* unit;
  const char* what;  // for the help texts
  bool counter;
};

// Indexed by toolkit::Quantity. Readings in units without a mapping go to
// bmcredfish_sensor_reading with the BMC's units in a label, so that no
// reading is lost and no metric mixes units silently.
constexpr Family kFamilies[] = {
    {"bmcredfish_sensor_temperature", "celsius", "Temperature sensor reading in degrees Celsius",
     false},
    {"bmcredfish_sensor_power", "watts", "Power sensor reading in watts", false},
    {"bmcredfish_sensor_voltage", "volts", "Voltage sensor reading in volts", false},
    {"bmcredfish_sensor_current", "amperes", "Current sensor reading in amperes", false},
    {"bmcredfish_sensor_fan_speed", "rpm", "Fan speed in revolutions per minute", false},
    {"bmcredfish_sensor_fan_duty", "ratio", "Fan speed as a ratio of the fan's maximum (0 to 1)",
     false},
    {"bmcredfish_sensor_humidity", "ratio", "Relative humidity (0 to 1)", false},
    {"bmcredfish_sensor", "ratio",
     "Other percentage reading as a ratio (load, utilisation; 0 to 1)", false},
    {"bmcredfish_sensor_frequency", "hertz", "Frequency sensor reading in hertz", false},
    {"bmcredfish_sensor_energy", "joules", "Energy the sensor has counted, in joules", true},
    {"bmcredfish_sensor_pressure", "pascals", "Pressure sensor reading in pascals", false},
    {"bmcredfish_sensor_airflow", "cubic_meters_per_second", "Air flow in cubic metres per second",
     false},
};
constexpr int kFamilyCount = sizeof kFamilies / sizeof kFamilies[0];
static_assert(kFamilyCount == static_cast<int>(Quantity::Other), "a family for each quantity");

// The thresholds in toolkit order (UpperCaution ... LowerFatal), by the names
// hwmon gives them.
constexpr const char* kThresholdKinds[toolkit::kThresholdCount] = {"max", "crit",  "emergency",
                                                                   "min", "lcrit", "lemergency"};

struct Metric {
  std::string name;
  std::string help;
  const char* type;
  std::string samples;
  std::set<std::string> seen;
};

void Add(Metric& m, const std::string& labels, double value) {
  // Each series once: a BMC that repeats a sensor has its first reading
  // shown, since Prometheus would refuse the scrape's duplicates.
  if (!m.seen.insert(labels).second) return;
  m.samples += m.name + "{" + labels + "} " + SampleValue(value) + "\n";
}

void Write(std::string& out, const Metric& m) {
  WriteMetric(out, m.name.c_str(), m.help.c_str(), m.type, m.samples);
}

double ValueOf(const std::optional<double>& v, double scale) {
  return v ? *v * scale : std::nan("");
}

double HealthValue(const std::string& health) {
  if (health == "OK") return 0;
  if (health == "Warning") return 1;
  if (health == "Critical") return 2;
  return std::nan("");
}

}  // namespace

void RenderReadings(std::string& out, const SensorReadings& readings) {
  std::vector<Metric> values(kFamilyCount);
  std::vector<std::vector<Metric>> thresholds(kFamilyCount,
                                              std::vector<Metric>(toolkit::kThresholdCount));
  for (int f = 0; f < kFamilyCount; ++f) {
    const Family& family = kFamilies[f];
    const std::string unit = family.unit;
    values[f] = {family.stem + ("_" + unit) + (family.counter ? "_total" : ""),
                 std::string(family.what) + ".",
                 family.counter ? "counter" : "gauge",
                 "",
                 {}};
    for (int t = 0; t < toolkit::kThresholdCount; ++t) {
      thresholds[f][t] = {family.stem + ("_" + std::string(kThresholdKinds[t])) + "_" + unit,
                          std::string("The ") + toolkit::kThresholdNames[t] +
                              " threshold the BMC sets for: " + family.what + ".",
                          "gauge",
                          "",
                          {}};
    }
  }
  Metric other{"bmcredfish_sensor_reading",
               "Sensor reading in units without a mapping (labels units and type).",
               "gauge",
               "",
               {}};
  Metric health{"bmcredfish_sensor_health",
                "Sensor health as the BMC reports it: 0 OK, 1 Warning, 2 Critical, NaN not given.",
                "gauge",
                "",
                {}};
  for (const toolkit::Sensor& s : readings.sensors) {
    const std::string labels =
        Label("chassis", s.chassis) + "," + Label("id", s.id) + "," + Label("name", s.name);
    const toolkit::Meaning meaning = toolkit::MeaningOf(s);
    Add(health, labels, HealthValue(s.health));
    if (meaning.quantity == Quantity::Other) {
      Add(other, labels + "," + Label("units", s.units) + "," + Label("type", s.type),
          ValueOf(s.reading, 1));
      continue;
    }
    const int f = static_cast<int>(meaning.quantity);
    Add(values[f], labels, ValueOf(s.reading, meaning.scale));
    if (kFamilies[f].counter) continue;
    for (int t = 0; t < toolkit::kThresholdCount; ++t) {
      if (s.thresholds[t]) Add(thresholds[f][t], labels, *s.thresholds[t] * meaning.scale);
    }
  }
  for (int f = 0; f < kFamilyCount; ++f) {
    Write(out, values[f]);
    for (const Metric& m : thresholds[f]) Write(out, m);
  }
  Write(out, other);
  Write(out, health);
  Metric power{"bmcredfish_chassis_power_watts",
               "The chassis' power figure in watts (EnvironmentMetrics PowerWatts, else the "
               "first PowerControl's PowerConsumedWatts).",
               "gauge",
               "",
               {}};
  Metric energy{"bmcredfish_chassis_energy_joules_total",
                "Energy the chassis has counted, in joules (EnvironmentMetrics EnergyJoules or "
                "EnergykWh).",
                "counter",
                "",
                {}};
  for (const toolkit::Chassis& c : readings.chassis) {
    if (c.hasPower) Add(power, Label("chassis", c.id), ValueOf(c.powerWatts, 1));
    if (c.hasEnergy) Add(energy, Label("chassis", c.id), ValueOf(c.energyJoules, 1));
  }
  Write(out, power);
  Write(out, energy);
}
