#include "exposition.h"

#include <charconv>
#include <cmath>
#include <vector>

#include "bmcredfish.h"
#include "health_metrics.h"
#include "log_metrics.h"
#include "reading_metrics.h"
#include "toolkit/bmc_text.h"

namespace {

void Gauge(std::string& out, const char* name, const char* help, double value) {
  Header(out, name, help, "gauge");
  Sample(out, name, "", value);
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
  std::vector<Call> calls = {{"systems", s.systems}, {"sensor_readings", s.sensors}};
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

void WriteMetric(std::string& out, const char* name, const char* help, const char* type,
                 const std::string& samples) {
  if (samples.empty()) return;
  Header(out, name, help, type);
  out += samples;
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
  Gauge(out, "bmcredfish_up",
        "1 when the BMC answered the last completed read (its systems, its readings and, "
        "unless --no-health, its health), else 0.",
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
        "Duration of the last completed BMC read (systems, sensor readings, health).",
        s.readSeconds);
  Gauge(out, "bmcredfish_scrape_duration_seconds",
        "Time this scrape took in the exporter, waiting for a BMC read included.",
        context.scrapeSeconds);
  Header(out, "bmcredfish_reads_total", "BMC reads completed.", "counter");
  Sample(out, "bmcredfish_reads_total", "", static_cast<double>(s.reads));
  Header(out, "bmcredfish_read_failures_total", "BMC reads in which a call failed.", "counter");
  Sample(out, "bmcredfish_read_failures_total", "", static_cast<double>(s.failures));
  if (s.powerOn) {
    Gauge(out, "bmcredfish_power_on",
          "1 when the first system's power state is On, else 0 (no series for a BMC without "
          "systems).",
          *s.powerOn ? 1 : 0);
  }
  if (s.readings) RenderReadings(out, *s.readings);
  if (s.health) RenderHealth(out, s.health->parsed, context.now);
  if (s.haveRead) out += RenderLogSeries(s.log);
  return out;
}
