// redfishctl: the library's questions and power commands from a shell.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "actions.h"
#include "advice.h"
#include "bmcredfish.h"
#include "doctor.h"
#include "doctor_probe.h"
#include "health.h"
#include "library_log.h"
#include "log.h"
#include "sensors_table.h"
#include "toolkit/atomic_file.h"
#include "toolkit/bmc_text.h"
#include "toolkit/failure_text.h"
#include "toolkit/health.h"
#include "toolkit/mac.h"
#include "toolkit/readings.h"
#include "toolkit/result_text.h"

namespace {

using toolkit::JsonEscape;
using toolkit::Printable;
using toolkit::ResultText;

using Clock = std::chrono::steady_clock;

const char kUsage[] =
    "usage: redfishctl [options] COMMAND\n"
    "\n"
    "Talks to this host's own BMC through the local proxy. It works on a host with a\n"
    "Redfish host interface (SMBIOS type 42), or inside tools/host-sim.\n"
    "\n"
    "commands:\n"
    "  power-state                 is the host powered on?\n"
    "  power ACTION --mac MAC      send a power command, refused unless MAC is the BMC's\n"
    "                              ACTION: on force-on force-off graceful-shutdown\n"
    "                                      force-restart graceful-restart power-cycle\n"
    "                                      push-power-button nmi\n"
    "  mac [--mac MAC]             the BMC's MAC address (or: does the BMC have MAC?)\n"
    "  sensors                     the chassis sensors as a table\n"
    "  health [--all] [--state F]  the hardware's health and the parts that are not OK\n"
    "                              (exit 1 when it is not OK)\n"
    "  log [--since T] [--severity S] [--follow[=SECONDS]]\n"
    "                              the BMC's event log, newest last; --since a time\n"
    "                              (2024-08-01T12:00:00Z) or how long ago (90m, 2h, 7d);\n"
    "                              --severity ok, warning or critical (that or worse);\n"
    "                              --follow reads it again every SECONDS (default 10)\n"
    "  doctor [--fix-route]        check the chain to the BMC, link by link, and say what to\n"
    "                              check at the first broken one (sends no power command)\n"
    "\n"
    "options:\n"
    "  --host HOST          the BMC (default: this host's own BMC, found through SMBIOS)\n"
    "  --user USER          BMC account (default: $BMC_USER, else admin)\n"
    "  --password-file F    read the password from F; otherwise from $BMC_PASSWORD\n"
    "  --mac MAC            six hex pairs, any case, ':' or '-' separated\n"
    "  --timeout SECONDS    deadline of the whole command (default 10; 0 is refused).\n"
    "                       Each request may take what remains of it.\n"
    "  --wait[=SECONDS]     power: after the BMC accepted, read the power state until\n"
    "                       it is what the action implies (default 120 s)\n"
    "  --json               machine-readable output (sensors: the readings document;\n"
    "                       log: one JSON object per entry and line)\n"
    "  --all                health: every system, chassis, part and firmware version\n"
    "  --state FILE         health: keep the health document in FILE between runs, so\n"
    "                       that a run while nothing changed asks the BMC little\n"
    "  --fix-route          doctor: let the library rewrite a route document that does\n"
    "                       not name this BMC (otherwise doctor never writes it)\n"
    "  --log FILE           append the library's log to FILE\n"
    "  --verbose            show the library's log on standard error\n"
    "  --version            redfishctl's and the library's version\n"
    "  -h, --help           this text\n"
    "\n"
    "exit status: 0 success (power: the BMC accepted, or no action was needed; with\n"
    "--wait: the state was reached; doctor: every link works, warnings or not;\n"
    "health: the hardware is OK),\n"
    "1 failure, time-out or broken link (the lines name the cause and what to check),\n"
    "2 usage error (nothing was sent).\n";

struct Options {
  std::string command;
  std::string action;
  std::string host;
  std::string user;
  std::string password;
  bool havePassword = false;
  std::string mac;  // canonical (lower case, ':')
  std::string macAsGiven;
  bool hasMac = false;
  double timeout = 10;
  bool wait = false;
  double waitSeconds = 120;
  bool json = false;
  bool verbose = false;
  bool fixRoute = false;
  bool all = false;
  std::string state;
  std::string log;
  LogOptions logOptions;
  bool logOnly = false;  // an option only the log command takes was given
};

int UsageError(const std::string& message) {
  std::fprintf(stderr, "redfishctl: %s\n(see redfishctl --help)\n", message.c_str());
  return 2;
}

bool ParseSeconds(const std::string& text, double& out) {
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v) || v <= 0 || v > 86400) return false;
  out = v;
  return true;
}

// Returns -1 when the options are complete, else the exit status.
int ParseOptions(int argc, char** argv, Options& o) {
  const char* envUser = std::getenv("BMC_USER");
  o.user = envUser ? envUser : "admin";
  if (const char* envPassword = std::getenv("BMC_PASSWORD")) {
    o.password = envPassword;
    o.havePassword = true;
  }
  std::vector<std::string> args(argv + 1, argv + argc);
  std::vector<std::string> positional;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string a = args[i];
    std::string inlineValue;
    bool hasInline = false;
    if (a.rfind("--", 0) == 0 && a.find('=') != std::string::npos) {
      inlineValue = a.substr(a.find('=') + 1);
      a = a.substr(0, a.find('='));
      hasInline = true;
    }
    auto value = [&](std::string& out) {
      if (hasInline) {
        out = inlineValue;
        return true;
      }
      if (i + 1 >= args.size()) return false;
      out = args[++i];
      return true;
    };
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--version") {
      std::printf("redfishctl %s (libbmcredfish %s)\n", BMCREDFISH_VERSION_STRING,
                  Redfish_GetVersion());
      return 0;
    } else if (a == "--host") {
      if (!value(o.host) || o.host.empty()) return UsageError("--host needs a value");
    } else if (a == "--user") {
      if (!value(o.user)) return UsageError("--user needs a value");
    } else if (a == "--password") {
      return UsageError(
          "passwords are not taken on the command line: use $BMC_PASSWORD or --password-file");
    } else if (a == "--password-file") {
      std::string path;
      if (!value(path)) return UsageError("--password-file needs a value");
      std::ifstream in(path);
      if (!in || !std::getline(in, o.password)) return UsageError("cannot read " + path);
      o.havePassword = true;
    } else if (a == "--mac") {
      if (!value(o.macAsGiven)) return UsageError("--mac needs a value");
      if (!toolkit::ParseMac(o.macAsGiven, o.mac))
        return UsageError("malformed MAC address '" + o.macAsGiven +
                          "' (want six hex pairs separated by ':' or '-')");
      o.hasMac = true;
    } else if (a == "--timeout") {
      std::string t;
      if (!value(t)) return UsageError("--timeout needs a value");
      if (!ParseSeconds(t, o.timeout))
        return UsageError("bad --timeout '" + t + "' (want seconds, more than 0)");
    } else if (a == "--wait") {
      o.wait = true;
      if (hasInline && !ParseSeconds(inlineValue, o.waitSeconds))
        return UsageError("bad --wait '" + inlineValue + "' (want seconds, more than 0)");
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--verbose") {
      o.verbose = true;
    } else if (a == "--fix-route") {
      o.fixRoute = true;
    } else if (a == "--all") {
      o.all = true;
    } else if (a == "--state") {
      if (!value(o.state) || o.state.empty()) return UsageError("--state needs a value");
    } else if (a == "--log") {
      if (!value(o.log)) return UsageError("--log needs a value");
    } else if (a == "--since") {
      std::string t;
      double since = 0;
      if (!value(t) || !ParseSince(t, static_cast<double>(std::time(nullptr)), since))
        return UsageError("bad --since (want a time such as 2024-08-01T12:00:00Z, or 90m, 2h, 7d)");
      o.logOptions.since = since;
      o.logOnly = true;
    } else if (a == "--severity") {
      std::string t;
      if (!value(t) || !ParseSeverity(t, o.logOptions.minSeverity))
        return UsageError("bad --severity (want ok, warning or critical)");
      o.logOnly = true;
    } else if (a == "--follow") {
      o.logOptions.follow = 10;
      if (hasInline && !ParseSeconds(inlineValue, o.logOptions.follow))
        return UsageError("bad --follow '" + inlineValue + "' (want seconds, more than 0)");
      o.logOnly = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return UsageError("unknown option " + a);
    } else {
      positional.push_back(a);
    }
    if (hasInline && a != "--wait" && a != "--host" && a != "--user" && a != "--password-file" &&
        a != "--mac" && a != "--timeout" && a != "--log" && a != "--state" && a != "--since" &&
        a != "--severity" && a != "--follow")
      return UsageError(a + " takes no value");
  }
  if (positional.empty()) return UsageError("no command");
  o.command = positional[0];
  static const char* const kCommands[] = {"power-state", "power",  "mac", "sensors",
                                          "health",      "doctor", "log"};
  bool known = false;
  for (const char* c : kCommands) known = known || o.command == c;
  if (!known) return UsageError("unknown command " + o.command);
  const bool isPower = o.command == "power";
  if (positional.size() != (isPower ? 2u : 1u))
    return UsageError("wrong arguments for " + o.command);
  if (isPower) {
    o.action = positional[1];
    if (FindAction(o.action.c_str()) == nullptr)
      return UsageError("unknown power action " + o.action);
    if (!o.hasMac)
      return UsageError("power needs --mac MAC: the BMC's MAC guards every power command");
  }
  if (o.wait && !isPower) return UsageError("--wait goes with power");
  if (o.fixRoute && o.command != "doctor") return UsageError("--fix-route goes with doctor");
  if (o.logOnly && o.command != "log")
    return UsageError("--since, --severity and --follow go with log");
  if ((o.all || !o.state.empty()) && o.command != "health")
    return UsageError("--all and --state go with health");
  if (!o.havePassword) return UsageError("no password: set $BMC_PASSWORD or use --password-file");
  return -1;
}

// The whole command's deadline passed: said once, either by the watchdog while
// a call still runs or by the call that came back at or after the deadline
// (the library's own time-out of the same length), whichever comes first.
class DeadlineReport {
 public:
  DeadlineReport(double seconds, bool json, FILE* err)
      : seconds_(seconds), json_(json), err_(err) {}

  // True for the one caller that says it.
  bool Claim() { return !claimed_.exchange(true); }

  // The link doctor is checking, named when the deadline passes in it.
  void Checking(const char* link) { link_ = link; }

  // Straight to the descriptors: another thread may hold a stdio lock.
  void Write() const {
    const char* link = link_;
    dprintf(fileno(err_),
            "redfishctl: timed out%s%s: the command's deadline of %gs passed "
            "(raise --timeout)\n",
            link ? " checking " : "", link ? link : "", seconds_);
    if (json_)
      dprintf(STDOUT_FILENO, "{\"result\":%d,\"meaning\":\"deadline passed\",\"link\":\"%s\"}\n",
              REDFISH_ERR_TIMEOUT, link ? link : "");
  }

 private:
  double seconds_;
  bool json_;
  FILE* err_;
  std::atomic<bool> claimed_{false};
  std::atomic<const char*> link_{nullptr};
};

// One run of a command against the library: the deadline, the log, the output.
class Session {
 public:
  Session(const Options& o, LibraryLog& log, DeadlineReport& report)
      : o_(o), log_(log), report_(report) {
    deadline_ = Clock::now() + std::chrono::milliseconds(static_cast<long long>(o.timeout * 1000));
    if (o.wait)
      deadline_ += std::chrono::milliseconds(static_cast<long long>(o.waitSeconds * 1000));
  }

  const char* Host() const { return o_.host.empty() ? nullptr : o_.host.c_str(); }
  const char* User() const { return o_.user.c_str(); }
  const char* Password() const { return o_.password.c_str(); }
  Clock::time_point Deadline() const { return deadline_; }

  // The per-request time-out: what is left of the whole command's deadline,
  // rounded up, so that a request that times out has outlived the deadline.
  unsigned int RequestMs() const {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
    return static_cast<unsigned int>(std::max<long long>(1, std::min<long long>(left, 3600000)));
  }

  int Fail(int code) {
    if (Clock::now() >= deadline_) {
      // The watchdog is saying it and ending the process.
      if (!report_.Claim())
        for (;;) pause();
      report_.Write();
      return 1;
    }
    log_.Drain();
    const RedfishFailure failure = toolkit::LastFailure(code);
    const std::string cause = Printable(toolkit::FailureCause(failure));
    const std::string check = Printable(FailureCheck(failure, o_.host, o_.command));
    if (o_.json) {
      std::printf("{%s,\"check\":\"%s\",\"meaning\":\"%s\"}\n",
                  toolkit::FailureJson(failure).c_str(), JsonEscape(check).c_str(),
                  JsonEscape(ResultText(code)).c_str());
      std::fflush(stdout);
    }
    FILE* err = log_.Err();
    std::fprintf(err, "redfishctl: %s failed: result %d: %s\n", o_.command.c_str(), code,
                 ResultText(code));
    if (failure.link != REDFISH_LINK_NONE)
      std::fprintf(err, "  link:  %s\n", toolkit::LinkLabel(failure.link));
    if (!cause.empty()) std::fprintf(err, "  cause: %s\n", cause.c_str());
    if (!check.empty()) std::fprintf(err, "  check: %s\n", check.c_str());
    if (failure.link >= REDFISH_LINK_SMBIOS && failure.link <= REDFISH_LINK_CREDENTIALS)
      std::fprintf(err, "  see:   redfishctl doctor (checks each link to the BMC)\n");
    std::fflush(err);
    return 1;
  }

  void Note(const std::string& text) {
    std::fprintf(log_.Err(), "redfishctl: %s\n", text.c_str());
    std::fflush(log_.Err());
  }

  void Drain() { log_.Drain(); }
  const Options& Opt() const { return o_; }
  DeadlineReport& Report() { return report_; }

 private:
  const Options& o_;
  LibraryLog& log_;
  DeadlineReport& report_;
  Clock::time_point deadline_;
};

int PowerStateCommand(Session& s) {
  bool on = false;
  int rc = Redfish_GetPowerState(s.User(), s.Password(), s.Host(), s.RequestMs(), &on);
  if (rc != 0) return s.Fail(rc);
  if (s.Opt().json) {
    std::printf("{\"result\":0,\"powerOn\":%s}\n", on ? "true" : "false");
  } else {
    std::printf("power: %s\n", on ? "on" : "off");
  }
  return 0;
}

// The BMC's own text for a MAC given in any notation: its default interface
// first (one search), then each notation the BMC might use.
int ResolveMac(Session& s, const std::string& canonical, std::string& bmcText) {
  std::string first;
  int rc = toolkit::ReadBmcMac(s.User(), s.Password(), s.Host(), nullptr, s.RequestMs(), first);
  if (rc != 0) return rc;
  std::string firstCanonical;
  if (toolkit::ParseMac(first, firstCanonical) && firstCanonical == canonical) {
    bmcText = first;
    return 0;
  }
  for (const std::string& candidate : toolkit::MacNotations(canonical, first)) {
    std::string found;
    rc = toolkit::ReadBmcMac(s.User(), s.Password(), s.Host(), candidate.c_str(), s.RequestMs(),
                             found);
    if (rc == 0) {
      bmcText = candidate;
      return 0;
    }
    if (rc != REDFISH_ERR_NO_MEMBER) return rc;
  }
  return REDFISH_ERR_NO_MEMBER;
}

int MacCommand(Session& s) {
  std::string text;
  if (s.Opt().hasMac) {
    int rc = ResolveMac(s, s.Opt().mac, text);
    if (rc != 0) return s.Fail(rc);
  } else {
    const int rc =
        toolkit::ReadBmcMac(s.User(), s.Password(), s.Host(), nullptr, s.RequestMs(), text);
    if (rc != 0) return s.Fail(rc);
  }
  if (s.Opt().json) {
    std::printf("{\"result\":0,\"mac\":\"%s\"}\n", JsonEscape(text).c_str());
  } else {
    std::printf("%s\n", Printable(text).c_str());
  }
  return 0;
}

int SensorsCommand(Session& s) {
  char* json = nullptr;
  const int rc = Redfish_GetSensorReadings(s.User(), s.Password(), s.Host(), s.RequestMs(), &json);
  if (rc != 0) return s.Fail(rc);
  const std::string doc(json);
  Redfish_FreeText(json);
  if (s.Opt().json) {
    std::printf("%s\n", doc.c_str());
    return 0;
  }
  toolkit::Readings readings;
  if (!toolkit::ParseReadings(doc, readings)) {
    s.Note("sensors: the readings document is not of its documented shape (see --json)");
    return 1;
  }
  if (readings.fromSensors == 0 && !readings.chassis.empty()) {
    std::string sources;
    for (const toolkit::Chassis& c : readings.chassis)
      for (const std::string& r : c.sources)
        if (sources.find(r) == std::string::npos) sources += (sources.empty() ? "" : ", ") + r;
    s.Note("this BMC has no Sensors collection; these readings are from " + Printable(sources));
  }
  std::fputs(ReadingsTable(readings).c_str(), stdout);
  return 0;
}

// The sensors' health joins the rollup where the BMC has readings. With
// --state, the last run's document goes back to the library, which then
// reads only what its watch says changed.
int HealthCommand(Session& s) {
  std::string previous;
  if (!s.Opt().state.empty()) {
    std::ifstream in(s.Opt().state);
    previous.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  char* readings = nullptr;
  const int sensors =
      Redfish_GetSensorReadings(s.User(), s.Password(), s.Host(), s.RequestMs(), &readings);
  s.Drain();
  if (sensors != 0 && sensors != REDFISH_ERR_NO_MEMBER)
    s.Note("health: sensors left out: their read failed with result " + std::to_string(sensors));
  char* json = nullptr;
  const int rc = Redfish_GetHealth(s.User(), s.Password(), s.Host(), s.RequestMs(),
                                   previous.empty() ? nullptr : previous.c_str(), readings, &json);
  Redfish_FreeText(readings);
  if (rc != 0) return s.Fail(rc);
  const std::string doc(json);
  Redfish_FreeText(json);
  s.Drain();
  if (!s.Opt().state.empty()) {
    std::string error;
    if (!toolkit::WriteAtomically(s.Opt().state, doc + "\n", error))
      s.Note("health: cannot write " + s.Opt().state);
  }
  toolkit::Health health;
  if (!toolkit::ParseHealth(doc, health)) {
    s.Note("health: the health document is not of its documented shape (see --json)");
    return 1;
  }
  if (s.Opt().json) {
    std::printf("%s\n", doc.c_str());
  } else {
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::fputs(HealthText(health, s.Opt().all, now).c_str(), stdout);
  }
  return health.health == "OK" ? 0 : 1;
}

// Each library call may take what is left of the deadline but a moment, so
// that a call that times out comes back in time to name its link.
int DoctorCommand(Session& s) {
  DoctorOptions options{s.Opt().user, s.Opt().password, s.Opt().host, s.Opt().json,
                        s.Opt().fixRoute};
  const std::function<unsigned int()> requestMs = [&] {
    const unsigned int left = s.RequestMs();
    return left > 600 ? left - 300 : std::max(1u, left / 2);
  };
  const std::function<void(const char*)> starting = [&](const char* link) {
    s.Drain();
    s.Report().Checking(link);
  };
  LibraryProbe probe(options, requestMs);
  return RunDoctor(options, probe, starting, stdout);
}

// Each read of the log has --timeout of its own: a following run goes on for
// as long as it is left to.
int LogCommand(const Options& o, LibraryLog& log) {
  LogOptions options = o.logOptions;
  options.json = o.json;
  const auto read = [&](const std::string& cursor, std::string& document) {
    char* json = nullptr;
    const int rc = Redfish_GetLogEntries(o.user.c_str(), o.password.c_str(),
                                         o.host.empty() ? nullptr : o.host.c_str(),
                                         static_cast<unsigned int>(o.timeout * 1000),
                                         cursor.empty() ? nullptr : cursor.c_str(), &json);
    if (rc == 0) document = json;
    Redfish_FreeText(json);
    log.Drain();
    return rc;
  };
  const auto fail = [&](int rc) {
    DeadlineReport report(o.timeout, o.json, log.Err());
    Session session(o, log, report);
    return session.Fail(rc);
  };
  const auto note = [&](const std::string& text) {
    std::fprintf(log.Err(), "redfishctl: %s\n", text.c_str());
    std::fflush(log.Err());
  };
  return RunLog(options, read, fail, note, stdout);
}

// Reads the power state until it is the wanted one or the deadline passes.
int WaitForState(Session& s, bool wantOn) {
  const bool tty = isatty(STDOUT_FILENO) && !s.Opt().json;
  const auto start = Clock::now();
  const auto waitEnd =
      start + std::chrono::milliseconds(static_cast<long long>(s.Opt().waitSeconds * 1000));
  const char* want = wantOn ? "on" : "off";
  std::string last = "unknown";
  for (;;) {
    bool on = false;
    int rc = Redfish_GetPowerState(s.User(), s.Password(), s.Host(), s.RequestMs(), &on);
    s.Drain();
    if (rc == 0) {
      last = on ? "on" : "off";
      if (on == wantOn) break;
    }
    const auto now = Clock::now();
    if (tty) {
      std::printf("\rwaiting for power %s: %llds (now %s)   ", want,
                  static_cast<long long>(
                      std::chrono::duration_cast<std::chrono::seconds>(now - start).count()),
                  last.c_str());
      std::fflush(stdout);
    }
    if (now + std::chrono::seconds(1) > waitEnd) {
      if (tty) std::printf("\n");
      if (s.Opt().json) {
        std::printf("{\"result\":%d,\"waited\":\"%s\",\"reached\":false}\n", REDFISH_ERR_TIMEOUT,
                    want);
      }
      s.Note("power " + s.Opt().action + ": power still " + last + " after " +
             std::to_string(static_cast<long long>(s.Opt().waitSeconds)) + "s of --wait");
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  if (tty) std::printf("\r%60s\r", "");
  const double took = std::chrono::duration<double>(Clock::now() - start).count();
  if (s.Opt().json) {
    std::printf("{\"result\":0,\"waited\":\"%s\",\"reached\":true,\"seconds\":%.1f}\n", want, took);
  } else {
    std::printf("power: %s (after %.1fs)\n", want, took);
  }
  return 0;
}

int PowerCommand(Session& s) {
  const Action& action = *FindAction(s.Opt().action.c_str());
  std::string bmcMac;
  int rc = ResolveMac(s, s.Opt().mac, bmcMac);
  if (rc != 0) return s.Fail(rc);

  // A power button toggles the state; an NMI leaves it as it is.
  bool wantOn = action.target != Target::Off;
  if (s.Opt().wait && (action.target == Target::Toggle || action.target == Target::Same)) {
    bool on = false;
    rc = Redfish_GetPowerState(s.User(), s.Password(), s.Host(), s.RequestMs(), &on);
    if (rc != 0) return s.Fail(rc);
    wantOn = action.target == Target::Toggle ? !on : on;
  }
  rc = Redfish_PowerOperation(s.User(), s.Password(), s.Host(), bmcMac.c_str(), action.command,
                              s.RequestMs());
  std::string answer;
  if (rc == 0) {
    answer = "accepted";
  } else if (rc >= 200 && rc < 300) {
    answer = "accepted (HTTP " + std::to_string(rc) + ")";
  } else if (rc == REDFISH_ERR_NO_ACTION_NEEDED) {
    answer = "no action needed";
  } else {
    return s.Fail(rc);
  }
  s.Drain();
  if (s.Opt().json) {
    std::printf("{\"result\":%d,\"command\":\"%s\",\"answer\":\"%s\"}\n", rc,
                s.Opt().action.c_str(), answer.c_str());
  } else {
    std::printf("power %s: %s\n", s.Opt().action.c_str(), answer.c_str());
  }
  std::fflush(stdout);
  if (!s.Opt().wait) return 0;
  return WaitForState(s, wantOn);
}

// Ends the process when the whole command's deadline has passed, even in the
// middle of a library call.
class Watchdog {
 public:
  Watchdog(Clock::time_point deadline, DeadlineReport& report)
      : thread_([this, deadline, &report] {
          std::unique_lock<std::mutex> lock(mutex_);
          if (cv_.wait_until(lock, deadline, [this] { return done_; })) return;
          if (!report.Claim()) return;  // a call that came back late says it
          report.Write();
          _exit(1);
        }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
  std::thread thread_;
};

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int status = ParseOptions(argc, argv, o);
  if (status >= 0) return status;

  FeatureState_Init();
  *GetFeatureState_Slow("REDFISH") = 1;  // this program is the hosting process
  LibraryLog log(o.log, o.verbose);
  if (!o.log.empty() && !log.CopyOpen()) {
    std::fprintf(log.Err(), "redfishctl: cannot write the log to %s\n", o.log.c_str());
    return 2;
  }
  if (o.command == "log") return LogCommand(o, log);
  DeadlineReport report(o.timeout + (o.wait ? o.waitSeconds : 0), o.json, log.Err());
  Session session(o, log, report);
  Watchdog watchdog(session.Deadline(), report);
  if (o.command == "power-state") return PowerStateCommand(session);
  if (o.command == "mac") return MacCommand(session);
  if (o.command == "sensors") return SensorsCommand(session);
  if (o.command == "health") return HealthCommand(session);
  if (o.command == "doctor") return DoctorCommand(session);
  return PowerCommand(session);
}
