#include "log.h"

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "bmcredfish.h"
#include "formatted.h"
#include "toolkit/bmc_text.h"
#include "toolkit/duration.h"

namespace {

using toolkit::JsonEscape;
using toolkit::Printable;

std::string Utc(double seconds) {
  const auto t = static_cast<time_t>(std::floor(seconds));
  struct tm tm {};
  char text[32] = "-";
  if (gmtime_r(&t, &tm) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &tm);
  return text;
}

std::string Number(const std::optional<double>& value) {
  return value ? Formatted("%.0f", *value) : "null";
}

std::string Describe(const toolkit::LogDocument& d) {
  std::string text = "log: " + Printable(d.path);
  std::string details = Printable(d.entryType);
  if (d.count) {
    details += (details.empty() ? "" : ", ") + Number(d.count) + " entries";
    if (d.maxRecords) details += " of " + Number(d.maxRecords);
  }
  if (d.order == "NewestFirst") details += ", listed newest first";
  return details.empty() ? text : text + " (" + details + ")";
}

}  // namespace

bool ParseSince(const std::string& text, double now, double& since) {
  double seconds = 0;
  bool unit = false;
  if (text.find('-') == std::string::npos && toolkit::ParseDuration(text, seconds, unit) && unit) {
    since = now - seconds;
    return true;
  }
  struct tm tm {};
  int offsetHours = 0, offsetMinutes = 0;
  char sign = '+';
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &consumed) !=
      3) {
    return false;
  }
  const char* rest = text.c_str() + consumed;
  if (*rest == 'T' || *rest == ' ') {
    int more = 0;
    if (std::sscanf(rest + 1, "%2d:%2d:%2d%n", &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &more) != 3) {
      return false;
    }
    rest += 1 + more;
    if (*rest == 'Z' && rest[1] == '\0') {
      rest += 1;
    } else if ((*rest == '+' || *rest == '-') &&
               std::sscanf(rest, "%c%2d:%2d%n", &sign, &offsetHours, &offsetMinutes, &more) == 3) {
      rest += more;
    } else {
      return false;
    }
  }
  if (*rest != '\0' || tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 ||
      tm.tm_hour > 23 || tm.tm_min > 59 || tm.tm_sec > 60) {
    return false;
  }
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  const double offset = (offsetHours * 3600 + offsetMinutes * 60) * (sign == '-' ? -1 : 1);
  since = static_cast<double>(timegm(&tm)) - offset;
  return true;
}

bool ParseSeverity(const std::string& text, int& rank) {
  rank = toolkit::SeverityRank(text);
  return rank >= 0;
}

bool Shown(const toolkit::LogEntry& entry, const LogOptions& options) {
  if (entry.severity < options.minSeverity) return false;
  return !options.since || (entry.time && *entry.time >= *options.since);
}

std::string LogLine(const toolkit::LogEntry& e) {
  const std::string when = e.time ? Utc(*e.time) : Printable(e.created.empty() ? "-" : e.created);
  char head[64];
  std::snprintf(head, sizeof head, "%-20s  %-8s  ", when.c_str(),
                toolkit::SeverityLabel(e.severity));
  std::string line = head + Printable(e.message.empty() ? "(no message)" : e.message);
  std::string notes = Printable(e.messageId);
  auto add = [&](const std::string& note) { notes += (notes.empty() ? "" : "; ") + note; };
  if (e.sensorNumber) add("sensor " + std::to_string(*e.sensorNumber));
  if (!e.origin.empty()) add(Printable(e.origin));
  if (e.kind == "Deassertion") add("deassertion");
  if (e.kind == "LogCleared") add("log cleared");
  if (e.resolved) add("resolved");
  if (e.resolves) add("ends an earlier entry");
  return notes.empty() ? line : line + "  [" + notes + "]";
}

std::string LogJson(const toolkit::LogEntry& e) {
  std::string out =
      "{\"Id\":\"" + JsonEscape(e.id) + "\",\"Created\":\"" + JsonEscape(e.created) +
      "\",\"Time\":" + Number(e.time) + ",\"Severity\":\"" + toolkit::SeverityLabel(e.severity) +
      "\",\"Message\":\"" + JsonEscape(e.message) + "\",\"MessageId\":\"" +
      JsonEscape(e.messageId) + "\",\"OriginOfCondition\":\"" + JsonEscape(e.origin) +
      "\",\"SensorNumber\":" + (e.sensorNumber ? std::to_string(*e.sensorNumber) : "null") +
      ",\"Kind\":\"" + JsonEscape(e.kind) + "\",\"Resolved\":" + (e.resolved ? "true" : "false") +
      "}";
  return out;
}

int RunLog(const LogOptions& options, const LogRead& read, const std::function<int(int)>& fail,
           const std::function<void(const std::string&)>& note, FILE* out) {
  std::string cursor;
  bool described = false;
  for (;;) {
    std::string text;
    const int rc = read(cursor, text);
    toolkit::LogDocument d;
    if (rc != 0) {
      const int status = fail(rc);
      if (options.follow <= 0) return status;
    } else if (!toolkit::ParseLogDocument(text, d)) {
      note("log: the library's document is not of its documented shape");
      if (options.follow <= 0) return 1;
    } else {
      if (!d.haveLog) {
        note("this BMC has no event log among the LogServices of its systems and managers");
        return 0;
      }
      if (!described && !options.json) note(Describe(d));
      described = true;
      if (d.restarted && !cursor.empty())
        note("the log was cleared or wrapped; read from its start");
      if (!d.missed) {
        note("more entries came than one read looks at; some older ones were not read");
      } else if (*d.missed > 0) {
        note(Number(d.missed) + " older entries were not read (more than one read looks at)");
      }
      for (const toolkit::LogEntry& e : d.entries) {
        if (!Shown(e, options)) continue;
        std::fprintf(out, "%s\n", (options.json ? LogJson(e) : LogLine(e)).c_str());
      }
      std::fflush(out);
      cursor = d.cursor;
      // A read stopped at its bound goes on at once.
      if (d.more) continue;
    }
    if (options.follow <= 0) return 0;
    std::this_thread::sleep_for(std::chrono::duration<double>(options.follow));
  }
}
