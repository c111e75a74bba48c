#include "exposition.h"

#include <strings.h>

#include <charconv>
#include <cmath>
#include <set>
#include <vector>

#include "bmcredfish.h"
#include "health_metrics.h"
#include "log_metrics.h"
#include "toolkit/bmc_text.h"

namespace {

// Sensor readings go to one metric per quantity, in its base unit. Units the
// table does not know go to bmcredfish_sensor_reading with the BMC's text in a
// label, so that no reading is lost and no metric mixes units silently.
enum FamilyIndex {
  Temperature,
  Power,
  Voltage,
  Current,
  FanRpm,
  FanPercent,
  Humidity,
  Percent,
  Frequency,
  Energy,
  Pressure,
  Other,
  FamilyCount
};

struct Family {
  const char* name;
  const char* help;
};

constexpr Family kFamilies[FamilyCount] = {
    {"bmcredfish_sensor_temperature_celsius", "Temperature sensor reading in degrees Celsius."},
    {"bmcredfish_sensor_power_watts", "Power sensor reading in watts."},
    {"bmcredfish_sensor_voltage_volts", "Voltage sensor reading in volts."},
    {"bmcredfish_sensor_current_amperes", "Current sensor reading in amperes."},
    {"bmcredfish_sensor_fan_speed_rpm", "Fan speed in revolutions per minute."},
    {"bmcredfish_sensor_fan_speed_percent", "Fan speed in percent of the fan's maximum."},
    {"bmcredfish_sensor_humidity_percent", "Relative humidity in percent."},
    {"bmcredfish_sensor_percent", "Other sensor reading in percent (load, utilisation)."},
    {"bmcredfish_sensor_frequency_hertz", "Frequency sensor reading in hertz."},
    {"bmcredfish_sensor_energy_joules", "Energy sensor reading in joules."},
    {"bmcredfish_sensor_pressure_pascals", "Pressure sensor reading in pascals."},
    {"bmcredfish_sensor_reading", "Sensor reading in units without a mapping (label units)."},
};

struct UnitRule {
  const char* units;  // the BMC's text, compared ignoring case
  FamilyIndex family;
  double scale;  // to the base unit
};

// The spellings real BMCs use: UCUM ("Cel", "%", "{rev}/min"), and the
// words some firmware prints ("C", "Watts", "Percent").
constexpr UnitRule kUnitRules[] = {
    {"Cel", Temperature, 1}, {"C", Temperature, 1},   {"Celsius", Temperature, 1},
    {"W", Power, 1},         {"Watts", Power, 1},     {"kW", Power, 1e3},
    {"V", Voltage, 1},       {"Volts", Voltage, 1},   {"mV", Voltage, 1e-3},
    {"A", Current, 1},       {"Amps", Current, 1},    {"Amperes", Current, 1},
    {"mA", Current, 1e-3},   {"RPM", FanRpm, 1},      {"{rev}/min", FanRpm, 1},
    {"%", Percent, 1},       {"Percent", Percent, 1}, {"Hz", Frequency, 1},
    {"J", Energy, 1},        {"kJ", Energy, 1e3},     {"W.h", Energy, 3.6e3},
    {"kW.h", Energy, 3.6e6}, {"kWh", Energy, 3.6e6},  {"Pa", Pressure, 1},
    {"kPa", Pressure, 1e3},
};

const UnitRule* RuleFor(const std::string& units) {
  for (const UnitRule& rule : kUnitRules) {
    if (strcasecmp(rule.units, units.c_str()) == 0) return &rule;
  }
  return nullptr;
}

FamilyIndex FamilyOf(const toolkit::Sensor& sensor, double& scale) {
  const UnitRule* rule = RuleFor(sensor.units);
  scale = rule != nullptr ? rule->scale : 1;
  if (rule == nullptr) return Other;
  // A percentage says what of by its type; a firmware's type is otherwise
  // not trusted (some call a fan tachometer "AirFlow", a power "Current").
  if (rule->family == Percent && sensor.type == "Rotational") return FanPercent;
  if (rule->family == Percent && sensor.type == "Humidity") return Humidity;
  return rule->family;
}

double HealthValue(const std::string& health) {
  if (health == "OK") return 0;
  if (health == "Warning") return 1;
  if (health == "Critical") return 2;
  return std::nan("");
}

void Gauge(std::string& out, const char* name, const char* help, double value) {
  Header(out, name, help, "gauge");
  Sample(out, name, "", value);
}

std::string SensorLabels(const toolkit::Sensor& s) {
  return Label("chassis", s.chassis) + "," + Label("id", s.id) + "," + Label("name", s.name);
}

// One metric per family, each series once: a BMC that repeats a sensor gets
// its first reading shown, since Prometheus would drop the scrape's duplicates.
void RenderSensors(std::string& out, const std::vector<toolkit::Sensor>& sensors) {
  std::string bodies[FamilyCount];
  std::set<std::string> seen[FamilyCount];
  std::string health;
  std::set<std::string> seenHealth;
  for (const toolkit::Sensor& s : sensors) {
    double scale = 1;
    const FamilyIndex family = FamilyOf(s, scale);
    const std::string sensor = SensorLabels(s);
    const std::string labels = family == Other ? sensor + "," + Label("units", s.units) : sensor;
    if (!seen[family].insert(labels).second) continue;
    const double value = s.reading ? *s.reading * scale : std::nan("");
    Sample(bodies[family], kFamilies[family].name, labels, value);
    if (seenHealth.insert(sensor).second) {
      Sample(health, "bmcredfish_sensor_health", sensor, HealthValue(s.health));
    }
  }
  for (int i = 0; i < FamilyCount; ++i) {
    if (bodies[i].empty()) continue;
    Header(out, kFamilies[i].name, kFamilies[i].help, "gauge");
    out += bodies[i];
  }
  if (health.empty()) return;
  Header(out, "bmcredfish_sensor_health",
         "Sensor health as the BMC reports it: 0 OK, 1 Warning, 2 Critical, NaN not given.",
         "gauge");
  out += health;
}

// The link numbers and labels, from the library's own list.
const std::string& FailureLinkHelp() {
  static const std::string help = [] {
    static const char* const kLabels[] = BMCREDFISH_LINK_LABELS;
    std::string text = "Link that failed in the last completed BMC read:";
    for (size_t i = 0; i < sizeof kLabels / sizeof kLabels[0]; ++i) {
      text += (i == 0 ? " " : ", ") + std::to_string(i) + " " + kLabels[i];
    }
    return text + ".";
  }();
  return help;
}

void RenderCalls(std::string& out, const Snapshot& s) {
  struct Call {
    const char* call;
    const CallOutcome& outcome;
  };
  std::vector<Call> calls = {{"power_state", s.power}, {"sensor_readings", s.sensors}};
  if (s.healthRead) calls.push_back({"health", s.healthCall});
  Header(out, "bmcredfish_last_result",
         "Result code of the library call in the last completed BMC read (0 success; 10003 "
         "time-out, 10004 proxy unreachable, 40005 credentials refused; see bmcredfish(3)).",
         "gauge");
  for (const auto& c : calls) {
    Sample(out, "bmcredfish_last_result", Label("call", c.call), c.outcome.result);
  }
  Header(out, "bmcredfish_last_failure_link", FailureLinkHelp().c_str(), "gauge");
  for (const auto& c : calls) {
    Sample(out, "bmcredfish_last_failure_link", Label("call", c.call), c.outcome.link);
  }
}

}  // namespace

void Header(std::string& out, const char* name, const char* help, const char* type) {
  out.append("# HELP ").append(name).append(" ").append(help).append("\n");
  out.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void Sample(std::string& out, const char* name, const std::string& labels, double value) {
  out.append(name);
  if (!labels.empty()) out.append("{").append(labels).append("}");
  out.append(" ").append(SampleValue(value)).append("\n");
}

std::string Label(const char* name, const std::string& value) {
  return std::string(name) + "=\"" + LabelValue(value) + "\"";
}

std::string LabelValue(const std::string& text) {
  const std::string printable = toolkit::Printable(text);
  std::string out;
  out.reserve(printable.size());
  for (char c : printable) {
    if (c == '\\' || c == '"') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

std::string SampleValue(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string Render(const Snapshot& s, const RenderContext& context) {
  std::string out;
  out.reserve(4096);
  Header(out, "bmcredfish_exporter_build_info",
         "The exporter's version and the loaded library's; always 1.", "gauge");
  Sample(out, "bmcredfish_exporter_build_info",
         Label("version", BMCREDFISH_VERSION_STRING) + "," +
             Label("library_version", context.libraryVersion),
         1);
  Gauge(out, "bmcredfish_up", "1 when the last completed BMC read succeeded, else 0.",
        s.LastReadOk() ? 1 : 0);
  if (s.haveRead) RenderCalls(out, s);
  Gauge(out, "bmcredfish_stale",
        "1 when this answer holds earlier values: the last read failed, or it was still "
        "running at the scrape's deadline.",
        s.stale ? 1 : 0);
  Gauge(out, "bmcredfish_last_success_timestamp_seconds",
        "Unix time of the last BMC read in which every call succeeded (0: none yet).",
        s.lastSuccess);
  if (s.readings) {
    Gauge(out, "bmcredfish_readings_age_seconds",
          "Seconds since the sensor readings shown were read from the BMC.",
          std::max(0.0, context.now - s.readingsTime));
  }
  Gauge(out, "bmcredfish_read_duration_seconds",
        "Duration of the last completed BMC read (power state and sensor readings).",
        s.readSeconds);
  Gauge(out, "bmcredfish_scrape_duration_seconds",
        "Time this scrape took in the exporter, waiting for a BMC read included.",
        context.scrapeSeconds);
  Header(out, "bmcredfish_reads_total", "BMC reads completed.", "counter");
  Sample(out, "bmcredfish_reads_total", "", static_cast<double>(s.reads));
  Header(out, "bmcredfish_read_failures_total", "BMC reads in which a call failed.", "counter");
  Sample(out, "bmcredfish_read_failures_total", "", static_cast<double>(s.failures));
  if (s.powerOn) {
    Gauge(out, "bmcredfish_power_on", "1 when the host's power state is On, else 0.",
          *s.powerOn ? 1 : 0);
  }
  if (s.readings) RenderSensors(out, s.readings->sensors);
  if (s.health) RenderHealth(out, s.health->parsed, context.now);
  if (s.haveRead) out += RenderLogSeries(s.log);
  return out;
}
