#include "library_log.h"

#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <rapidjson/document.h>

#include <cctype>
#include <cstdlib>

#include "bmcredfish.h"

LibraryLog::LibraryLog(const std::string& copyPath, bool verbose) : verbose_(verbose) {
  // Whatever sink the environment names, the lines must come here to be read.
  setenv("BMCREDFISH_LOG", "stderr", 1);
  int saved = dup(STDERR_FILENO);
  if (saved >= 0) {
    FILE* f = fdopen(saved, "w");
    if (f) {
      err_ = f;
    } else {
      close(saved);
    }
  }
  char pattern[] = "/tmp/redfishctl-log-XXXXXX";
  capture_ = mkstemp(pattern);
  if (capture_ >= 0) {
    unlink(pattern);
    if (err_ != stderr) dup2(capture_, STDERR_FILENO);
  }
  if (!copyPath.empty()) {
    // The library's traces hold the Base64 credentials: the file is the user's alone.
    int fd = open(copyPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
      copy_ = fdopen(fd, "a");
      if (!copy_) close(fd);
    }
  }
}

LibraryLog::~LibraryLog() {
  Drain();
  if (copy_) std::fclose(copy_);
  if (capture_ >= 0) close(capture_);
}

std::string LibraryLog::Drain() {
  std::string text;
  if (capture_ < 0) return text;
  char buf[8192];
  for (;;) {
    ssize_t n = pread(capture_, buf, sizeof buf, offset_);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
    offset_ += n;
  }
  if (!text.empty()) {
    if (copy_) {
      std::fwrite(text.data(), 1, text.size(), copy_);
      std::fflush(copy_);
    }
    if (verbose_) {
      std::fwrite(text.data(), 1, text.size(), err_);
      std::fflush(err_);
    }
  }
  return text;
}

namespace {

std::string Clip(std::string s, size_t max = 200) {
  for (char& c : s)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  if (s.size() > max) s = s.substr(0, max) + "...";
  return s;
}

// The log writes one record per line with control bytes escaped as \n, \r,
// \t and \xHH (backslashes not doubled). Each becomes a space: whitespace
// between JSON tokens, and inside a JSON string (where the two characters may
// have been the body's own escape) a space that keeps the string valid.
std::string Unescape(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) {
      char c = s[i + 1];
      if (c == 'n' || c == 'r' || c == 't') {
        out += ' ';
        ++i;
        continue;
      }
      if (c == 'x' && i + 3 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 2])) &&
          std::isxdigit(static_cast<unsigned char>(s[i + 3]))) {
        out += ' ';
        i += 3;
        continue;
      }
    }
    out += s[i];
  }
  return out;
}

// The body of the last error response the library logged, and whether there was one.
bool LastErrorBody(const std::string& log, std::string& body) {
  const std::string marker = " bytes\\n'";
  size_t at = log.rfind(marker);
  if (at == std::string::npos) return false;
  size_t start = at + marker.size();
  size_t end = log.find('\n', start);
  if (end == std::string::npos) end = log.size();
  // The record ends with the body's closing quote (or a cut marker after it).
  size_t quote = log.rfind('\'', end);
  if (quote != std::string::npos && quote >= start) end = quote;
  body = Unescape(log.substr(start, end - start));
  return true;
}

std::string StringAt(const rapidjson::Value& v, const char* name) {
  if (!v.IsObject()) return "";
  auto it = v.FindMember(name);
  if (it == v.MemberEnd() || !it->value.IsString()) return "";
  return it->value.GetString();
}

// "who answered" for an error body: the BMC's Redfish error, or the proxy's page.
std::string WhoAnswered(const std::string& body) {
  if (body.empty()) return "an empty body";
  rapidjson::Document doc;
  doc.Parse(body.c_str(), body.size());
  if (!doc.HasParseError() && doc.IsObject() && doc.HasMember("error")) {
    const rapidjson::Value& error = doc["error"];
    if (error.IsString()) return "the proxy: " + Clip(error.GetString());
    std::string message;
    auto info = error.IsObject() ? error.FindMember("@Message.ExtendedInfo") : error.MemberEnd();
    if (error.IsObject() && info != error.MemberEnd() && info->value.IsArray() &&
        !info->value.Empty())
      message = StringAt(info->value[0], "Message");
    if (message.empty()) message = StringAt(error, "message");
    if (message.empty()) message = StringAt(error, "code");
    return "the BMC (Redfish error): " + Clip(message.empty() ? body : message);
  }
  if (body.find("nginx") != std::string::npos || body.find("<html") != std::string::npos) {
    size_t t = body.find("<title>");
    size_t e = body.find("</title>");
    std::string title = t != std::string::npos && e > t ? body.substr(t + 7, e - t - 7) : "";
    return "the proxy (error page" + (title.empty() ? std::string() : ": " + Clip(title)) + ")";
  }
  return "a body that is not a Redfish error: " + Clip(body, 80);
}

bool Resolves(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return false;
  freeaddrinfo(found);
  return true;
}

}  // namespace

std::string ExplainFailure(int code, const std::string& log, const std::string& host,
                           const std::string& command) {
  std::string why;
  std::string check;
  const bool configFailed = log.find("Failed to update bmcApi.json") != std::string::npos ||
                            log.find("bmcApi.json: ") != std::string::npos;
  std::string body;
  const bool haveBody = LastErrorBody(log, body);
  switch (code) {
    case REDFISH_ERR_NO_BMC_ADDRESS:
      why = "this host's SMBIOS tables have no Redfish host interface record with a BMC address";
      check =
          "run inside tools/host-sim or on a host with a Redfish host interface, "
          "or name the BMC with --host";
      break;
    case REDFISH_ERR_SYSTEM:
    case REDFISH_ERR_TRANSPORT:
      why = "nobody answered: no connection to the local proxy";
      check =
          "is the proxy running and listening on localhost:80 (requests) and "
          "localhost:549 (route document)?";
      break;
    case REDFISH_ERR_TIMEOUT:
      why = "no answer within the time left";
      check = "raise --timeout, or check that the proxy and the BMC are reachable";
      break;
    case REDFISH_ERR_ROUTE_DOCUMENT:
      why = "the proxy's route document lacks a value the library needs";
      check = "the route document: curl http://localhost:549/portico/config/json/bmcApi.json";
      break;
    case REDFISH_ERR_UNAUTHORIZED:
      why = "the BMC refused the credentials";
      check = "--user (or $BMC_USER) and the password ($BMC_PASSWORD or --password-file)";
      break;
    case REDFISH_ERR_COMMAND_NOT_ALLOWED:
      why = "the BMC does not list that reset type among the system's allowed values";
      check = "the system's ResetType@Redfish.AllowableValues (or its ResetActionInfo)";
      break;
    case REDFISH_UNKNOWN_VENDOR:
      why = "the BMC's manufacturer is not one the library knows how to reset";
      break;
    case REDFISH_ERR_NO_MEMBER:
      if (command == "sensors") {
        why =
            "this BMC has no Sensors collection under its chassis (it may report "
            "temperatures and fans under Thermal and Power instead)";
      } else if (command == "power" || command == "mac") {
        why = "the BMC has no network interface with that MAC address";
        check = "redfishctl mac (the BMC's MAC address)";
      } else {
        why = "the BMC has no such member";
      }
      break;
    default:
      if (code >= 100 && code < 600) {
        if (configFailed) {
          why = "the proxy's configuration endpoint refused the route document";
          if (!host.empty() && !Resolves(host)) {
            check = "the host name " + host + " does not resolve";
          } else {
            check = "the proxy's error log, and that --host names a reachable BMC";
          }
        } else if (haveBody) {
          why = "answered by " + WhoAnswered(body);
          if (code == 502 || code == 504)
            check = "the proxy cannot reach the BMC" + (host.empty() ? "" : " at " + host) +
                    ": is it up, and does the route document name it? (curl "
                    "http://localhost:549/portico/config/json/bmcApi.json)";
        } else if (code == 502 || code == 504) {
          why = "answered by the proxy: it cannot reach the BMC";
        }
      }
      break;
  }
  std::string out;
  if (!why.empty()) out += "  cause: " + why + "\n";
  if (!check.empty()) out += "  check: " + check + "\n";
  return out;
}
