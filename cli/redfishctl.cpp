// redfishctl: the library's questions and power commands from a shell.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bmcredfish.h"
#include "result_text.h"

extern "C" void FeatureState_Init(void);
extern "C" uint8_t* GetFeatureState_Slow(const char* name);

namespace {

const std::map<std::string, REDFISHCMD> kCommands = {
    {"on", REDFISHCMD_ON},
    {"force-off", REDFISHCMD_FORCE_OFF},
    {"force-on", REDFISHCMD_FORCE_ON},
    {"force-restart", REDFISHCMD_FORCE_RESTART},
    {"graceful-restart", REDFISHCMD_GRACEFUL_RESTART},
    {"graceful-shutdown", REDFISHCMD_GRACEFUL_SHUTDOWN},
    {"push-power-button", REDFISHCMD_PUSH_POWER_BUTTON},
    {"nmi", REDFISHCMD_NMI},
    {"power-cycle", REDFISHCMD_POWER_CYCLE},
};

const char kUsage[] =
    "usage: redfishctl [options] COMMAND\n"
    "\n"
    "commands:\n"
    "  power-state                 is the host powered on?\n"
    "  power ACTION --mac MAC      send a power command; refused unless MAC is the BMC's\n"
    "                              ACTION: on force-off force-on force-restart graceful-restart\n"
    "                                      graceful-shutdown push-power-button nmi power-cycle\n"
    "  mac [--mac MAC]             the BMC's MAC address (or check that it has MAC)\n"
    "  sensors                     the chassis sensors (Redfish JSON)\n"
    "\n"
    "options:\n"
    "  --host HOST          the BMC (default: this host's own BMC, found through SMBIOS)\n"
    "  --user USER          BMC account (default: $BMC_USER, else admin)\n"
    "  --password-file F    read the password from F; otherwise from $BMC_PASSWORD\n"
    "  --timeout-ms N       per-request time-out (default 5000)\n"
    "  --json               machine-readable output\n"
    "  --log FILE           write the library's log to FILE (default: discarded)\n"
    "  --verbose            show the library's log on standard error\n"
    "  -h, --help           this text\n"
    "\n"
    "exit status: 0 on success, 1 when the library returned a failure (one line names the\n"
    "code and its meaning), 2 for a usage error.\n";

struct Options {
  std::string command;
  std::string action;
  std::string host;
  bool hasHost = false;
  std::string user;
  std::string password;
  std::string mac;
  bool hasMac = false;
  unsigned int timeoutMs = 5000;
  bool json = false;
  bool verbose = false;
  std::string log;
};

int UsageError(const std::string& message) {
  std::fprintf(stderr, "redfishctl: %s\n(see redfishctl --help)\n", message.c_str());
  return 2;
}

std::string JsonEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out;
}

// The library logs to standard error; keep that out of the operator's way
// unless asked for, and keep our own messages on the real standard error.
int RouteLibraryLog(const Options& o) {
  int saved = dup(STDERR_FILENO);
  if (o.verbose) return saved;
  int fd = o.log.empty() ? open("/dev/null", O_WRONLY)
                         : open(o.log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (fd >= 0) {
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  return saved;
}

int Fail(int errFd, const Options& o, int code) {
  FILE* err = fdopen(errFd, "w");
  if (o.json) {
    std::printf("{\"result\":%d,\"meaning\":\"%s\"}\n", code, JsonEscape(ResultText(code)).c_str());
  }
  std::fprintf(err ? err : stderr, "redfishctl: %s failed: result %d: %s\n", o.command.c_str(),
               code, ResultText(code));
  if (err) std::fflush(err);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  const char* envUser = std::getenv("BMC_USER");
  o.user = envUser ? envUser : "admin";
  const char* envPassword = std::getenv("BMC_PASSWORD");
  bool havePassword = envPassword != nullptr;
  if (envPassword) o.password = envPassword;

  std::vector<std::string> args(argv + 1, argv + argc);
  std::vector<std::string> positional;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= args.size()) return false;
      out = args[++i];
      return true;
    };
    if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--host") {
      if (!value(o.host)) return UsageError("--host needs a value");
      o.hasHost = true;
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
      havePassword = true;
    } else if (a == "--mac") {
      if (!value(o.mac)) return UsageError("--mac needs a value");
      o.hasMac = true;
    } else if (a == "--timeout-ms") {
      std::string t;
      if (!value(t)) return UsageError("--timeout-ms needs a value");
      char* end = nullptr;
      unsigned long v = std::strtoul(t.c_str(), &end, 10);
      if (t.empty() || *end != '\0' || v > 0xffffffffUL) return UsageError("bad --timeout-ms " + t);
      o.timeoutMs = static_cast<unsigned int>(v);
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--verbose") {
      o.verbose = true;
    } else if (a == "--log") {
      if (!value(o.log)) return UsageError("--log needs a value");
    } else if (a.size() > 1 && a[0] == '-') {
      return UsageError("unknown option " + a);
    } else {
      positional.push_back(a);
    }
  }
  if (positional.empty()) return UsageError("no command");
  o.command = positional[0];
  const bool isPower = o.command == "power";
  if (positional.size() != (isPower ? 2u : 1u))
    return UsageError("wrong arguments for " + o.command);
  if (isPower) {
    o.action = positional[1];
    if (kCommands.find(o.action) == kCommands.end())
      return UsageError("unknown power action " + o.action);
    if (!o.hasMac)
      return UsageError("power needs --mac MAC: the BMC's MAC guards every power command");
  }
  if (!havePassword) return UsageError("no password: set $BMC_PASSWORD or use --password-file");

  const char* host = o.hasHost ? o.host.c_str() : nullptr;
  FeatureState_Init();
  *GetFeatureState_Slow("REDFISH") = 1;  // this program is the hosting process
  int errFd = RouteLibraryLog(o);
  const char* user = o.user.c_str();
  const char* password = o.password.c_str();
  int rc = 0;

  if (o.command == "power-state") {
    bool on = false;
    rc = Redfish_GetPowerState(user, password, host, o.timeoutMs, &on);
    if (rc != 0) return Fail(errFd, o, rc);
    if (o.json) {
      std::printf("{\"result\":0,\"powerOn\":%s}\n", on ? "true" : "false");
    } else {
      std::printf("power: %s\n", on ? "on" : "off");
    }
  } else if (o.command == "mac") {
    char buffer[256] = {};
    unsigned int length = sizeof buffer;
    rc = Redfish_GetMacAddress(user, password, host, o.hasMac ? o.mac.c_str() : nullptr,
                               o.timeoutMs, buffer, &length);
    if (rc != 0) return Fail(errFd, o, rc);
    if (o.json) {
      std::printf("{\"result\":0,\"mac\":\"%s\"}\n", JsonEscape(buffer).c_str());
    } else {
      std::printf("%s\n", buffer);
    }
  } else if (o.command == "sensors") {
    unsigned int length = 0;
    rc = Redfish_GetSensorsInfo(user, password, host, o.timeoutMs, nullptr, &length);
    if (rc != 0) return Fail(errFd, o, rc);
    std::vector<char> buffer(length + 1);
    length = static_cast<unsigned int>(buffer.size());
    rc = Redfish_GetSensorsInfo(user, password, host, o.timeoutMs, buffer.data(), &length);
    if (rc != 0) return Fail(errFd, o, rc);
    if (o.json) {
      std::printf("{\"result\":0,\"sensors\":%s}\n", buffer.data());
    } else {
      std::printf("%s\n", buffer.data());
    }
  } else if (isPower) {
    rc = Redfish_PowerOperation(user, password, host, o.mac.c_str(), kCommands.at(o.action),
                                o.timeoutMs);
    if (rc != 0) return Fail(errFd, o, rc);
    if (o.json) {
      std::printf("{\"result\":0,\"command\":\"%s\"}\n", o.action.c_str());
    } else {
      std::printf("power %s: accepted\n", o.action.c_str());
    }
  } else {
    return UsageError("unknown command " + o.command);
  }
  return 0;
}
