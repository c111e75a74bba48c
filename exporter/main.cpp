// bmcredfish-exporter: this host's BMC sensors for Prometheus, read through
// the library (its public header only) from the host's own BMC.
#include <getopt.h>
#include <malloc.h>
#include <signal.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bmc_reader.h"
#include "bmcredfish.h"
#include "collector.h"
#include "credentials.h"
#include "exposition.h"
#include "metrics_server.h"
#include "textfile.h"

namespace {

// Written, but the BMC read failed: the unit counts it as success, a script can tell.
constexpr int kExitReadFailed = 3;
// Unusable credentials: systemd shows it as NOTCONFIGURED, and the unit does
// not restart for it, as no retry mends the file.
constexpr int kExitNotConfigured = 6;

struct Options {
  std::string listen = ":9742";
  std::string credentialsFile;
  double maxAge = 10;
  double bmcTimeout = 10;
  double scrapeTimeout = 10;
  double timeoutOffset = 0.5;
  std::string libraryLog;
  std::string textfile;
  std::string stateFile;
  std::string logWindow;
  double window = kDefaultLogWindow;  // logWindow's seconds
  std::string stateDirectory;
  bool noHealth = false;
};

constexpr char kUsage[] =
    "Usage: bmcredfish-exporter [OPTION]...\n"
    "Exports this host's BMC sensors, read through the local Redfish proxy, for Prometheus.\n"
    "\n"
    "  --web.listen-address=ADDR  serve /metrics there (default :9742; HOST:PORT, [IPV6]:PORT)\n"
    "  --credentials-file=FILE    the BMC account, one line user:password, mode 0600, owned\n"
    "                             by this user or root (default\n"
    "                             $CREDENTIALS_DIRECTORY/bmc-credentials, else\n"
    "                             /etc/bmcredfish-exporter/credentials)\n"
    "  --max-age=SECONDS          serve a read this recent without reading again (default 10)\n"
    "  --bmc-timeout=SECONDS      time-out of each read of the BMC, its requests together\n"
    "                             (default 10)\n"
    "  --scrape-timeout=SECONDS   deadline of a scrape that states none (default 10)\n"
    "  --timeout-offset=SECONDS   answer this long before the scraper's deadline (default 0.5)\n"
    "  --library-log=DEST         the library's log: none, stderr, syslog or file:PATH (default\n"
    "                             $BMCREDFISH_LOG, else none); credentials are always masked\n"
    "  --textfile=FILE            read once, write FILE for node_exporter's textfile collector\n"
    "                             and exit (0; 3 when the BMC read failed)\n"
    "  --state-file=FILE          with --textfile: the last good values, kept between runs\n"
    "  --log-window=DURATION      count event log entries this recent (default 24h; 90m, 7d)\n"
    "  --state-directory=DIR      where the daemon keeps the event log's tally between runs\n"
    "                             (default $STATE_DIRECTORY; none: a restart reads it whole)\n"
    "  --no-health                read no hardware health (parts, rollup, firmware)\n"
    "  --version                  print the version and exit\n"
    "  --help                     print this help and exit\n";

int Usage(const std::string& problem) {
  std::fprintf(stderr, "bmcredfish-exporter: %s\nTry 'bmcredfish-exporter --help'.\n",
               problem.c_str());
  return 2;
}

bool Seconds(const char* text, bool zeroAllowed, double& out) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(value) || value < 0 || value > 86400 ||
      (value == 0 && !zeroAllowed)) {
    return false;
  }
  out = value;
  return true;
}

// 0: go on; otherwise the exit status.
int Parse(int argc, char** argv, Options& o, bool& done) {
  // Each option's value goes to a text or, checked, to a number of seconds.
  const struct {
    option spec;
    std::string* text;
    double* seconds;
    bool zeroAllowed;
    bool* flag = nullptr;
  } kinds[] = {
      {{"web.listen-address", required_argument, nullptr, 0}, &o.listen, nullptr, false},
      {{"credentials-file", required_argument, nullptr, 0}, &o.credentialsFile, nullptr, false},
      {{"max-age", required_argument, nullptr, 0}, nullptr, &o.maxAge, true},
      {{"bmc-timeout", required_argument, nullptr, 0}, nullptr, &o.bmcTimeout, false},
      {{"scrape-timeout", required_argument, nullptr, 0}, nullptr, &o.scrapeTimeout, false},
      {{"timeout-offset", required_argument, nullptr, 0}, nullptr, &o.timeoutOffset, true},
      {{"library-log", required_argument, nullptr, 0}, &o.libraryLog, nullptr, false},
      {{"textfile", required_argument, nullptr, 0}, &o.textfile, nullptr, false},
      {{"state-file", required_argument, nullptr, 0}, &o.stateFile, nullptr, false},
      {{"no-health", no_argument, nullptr, 0}, nullptr, nullptr, false, &o.noHealth},
      {{"log-window", required_argument, nullptr, 0}, &o.logWindow, nullptr, false},
      {{"state-directory", required_argument, nullptr, 0}, &o.stateDirectory, nullptr, false},
      {{"version", no_argument, nullptr, 0}, nullptr, nullptr, false},
      {{"help", no_argument, nullptr, 0}, nullptr, nullptr, false},
  };
  constexpr int kCount = sizeof kinds / sizeof kinds[0];
  option specs[kCount + 1] = {};
  for (int i = 0; i < kCount; ++i) {
    specs[i] = kinds[i].spec;
    specs[i].val = 'A' + i;
  }
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "", specs, nullptr)) != -1) {
    const int i = c - 'A';
    if (i < 0 || i >= kCount) {
      return Usage(std::string("unknown option or missing value: ") + argv[optind - 1]);
    }
    if (kinds[i].flag != nullptr) {
      *kinds[i].flag = true;
    } else if (kinds[i].text != nullptr) {
      *kinds[i].text = optarg;
    } else if (kinds[i].seconds != nullptr) {
      if (!Seconds(optarg, kinds[i].zeroAllowed, *kinds[i].seconds)) {
        return Usage(std::string("bad number of seconds: ") + argv[optind - 1]);
      }
    } else {
      if (std::strcmp(kinds[i].spec.name, "help") == 0) {
        std::fputs(kUsage, stdout);
      } else {
        std::printf("bmcredfish-exporter %s (libbmcredfish %s)\n", BMCREDFISH_VERSION_STRING,
                    Redfish_GetVersion());
      }
      done = true;
      return 0;
    }
  }
  if (optind < argc) return Usage(std::string("unexpected argument: ") + argv[optind]);
  if (!o.stateFile.empty() && o.textfile.empty()) return Usage("--state-file needs --textfile");
  if (!o.logWindow.empty() && !ParseLogWindow(o.logWindow, o.window)) {
    return Usage("bad --log-window '" + o.logWindow + "' (a minute to a year: 90m, 24h, 7d)");
  }
  if (o.libraryLog.empty()) {
    const char* fromEnvironment = std::getenv("BMCREDFISH_LOG");
    o.libraryLog = fromEnvironment != nullptr ? fromEnvironment : "none";
  }
  const std::string& log = o.libraryLog;
  if (log != "none" && log != "stderr" && log != "syslog" && log.rfind("file:/", 0) != 0) {
    return Usage("bad --library-log '" + log + "' (none, stderr, syslog, file:/PATH)");
  }
  return 0;
}

int RunTextfile(const Options& o, BmcReader& reader) {
  Snapshot snapshot;
  if (!o.stateFile.empty()) LoadState(o.stateFile, snapshot);
  if (snapshot.health) reader.RememberHealth(snapshot.health->document);
  if (!snapshot.logState.empty()) reader.RestoreLog(snapshot.logState);
  const ReadResult read = reader();
  const double now = WallSeconds();
  ApplyRead(snapshot, read, now);
  std::string error;
  if (!WriteAtomically(o.textfile, Render(snapshot, {now, read.seconds, Redfish_GetVersion()}),
                       error) ||
      (!o.stateFile.empty() && !SaveState(o.stateFile, snapshot, error))) {
    std::fprintf(stderr, "bmcredfish-exporter: %s\n", error.c_str());
    return 1;
  }
  return read.Ok() ? 0 : kExitReadFailed;
}

int RunServer(const Options& o, BmcReader reader) {
  // The server's and the reader's threads would each get a malloc arena of
  // their own besides the main one, which glibc keeps: two are enough.
  mallopt(M_ARENA_MAX, 2);
  // Signals are taken by sigwait below, never by the server's or the reader's threads.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const auto maxAge = std::chrono::duration_cast<Collector::Clock::duration>(
      std::chrono::duration<double>(o.maxAge));
  Collector collector(std::move(reader), maxAge);
  MetricsServer server(collector);
  MetricsServer::Options serving;
  serving.address = o.listen;
  serving.scrapeTimeout = o.scrapeTimeout;
  serving.timeoutOffset = o.timeoutOffset;
  serving.libraryVersion = Redfish_GetVersion();
  std::string error;
  if (!server.Start(serving, error)) {
    std::fprintf(stderr, "bmcredfish-exporter: %s\n", error.c_str());
    std::quick_exit(1);  // the first read may be running: skip the library's finaliser
  }
  std::fprintf(stderr, "bmcredfish-exporter %s: serving /metrics on %s\n",
               BMCREDFISH_VERSION_STRING, o.listen.c_str());
  int received = 0;
  while (sigwait(&signals, &received) == 0 && received == SIGHUP) {
  }
  server.Stop();
  if (!collector.Stop(std::chrono::seconds(2))) std::quick_exit(0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  bool done = false;
  const int status = Parse(argc, argv, o, done);
  if (status != 0 || done) return status;

  // Before the library's first log message: its traces carry the credentials.
  setenv("BMCREDFISH_LOG_MASK", "1", 1);
  setenv("BMCREDFISH_LOG", o.libraryLog.c_str(), 1);

  Credentials credentials;
  std::string error;
  const std::string path = o.credentialsFile.empty() ? DefaultCredentialsPath() : o.credentialsFile;
  if (!LoadCredentials(path, credentials, error)) {
    std::fprintf(stderr, "bmcredfish-exporter: credentials: %s\n", error.c_str());
    return kExitNotConfigured;
  }
  FeatureState_Init();
  if (uint8_t* redfish = GetFeatureState_Slow("REDFISH")) *redfish = 1;

  BmcReader reader(std::move(credentials), static_cast<unsigned>(o.bmcTimeout * 1000), !o.noHealth,
                   o.window);
  if (o.textfile.empty()) {
    // systemd's StateDirectory= names it; it may list several, the first is ours.
    const char* fromUnit = std::getenv("STATE_DIRECTORY");
    std::string folder = !o.stateDirectory.empty() ? o.stateDirectory : fromUnit ? fromUnit : "";
    folder = folder.substr(0, folder.find(':'));
    if (!folder.empty()) reader.KeepLogIn(folder + "/log-state.json");
  }
  return o.textfile.empty() ? RunServer(o, std::move(reader)) : RunTextfile(o, reader);
}
