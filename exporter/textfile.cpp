#include "textfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

bool WriteAtomically(const std::string& path, const std::string& text, std::string& error) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temporary = folder + "/." + base + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) {
    error = "cannot create a file in " + folder + ": " + std::strerror(errno);
    return false;
  }
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  const bool ok = written == text.size() && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
  const int saved = errno;
  if (close(fd) != 0 || !ok || rename(temporary.c_str(), path.c_str()) != 0) {
    error = "cannot write " + path + ": " + std::strerror(ok ? errno : saved);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool LoadState(const std::string& path, Snapshot& snapshot) {
  std::ifstream in(path);
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  rapidjson::Document doc;
  doc.Parse(text.str().c_str());
  if (doc.HasParseError() || !doc.IsObject()) return false;
  auto number = [&](const char* name) {
    auto it = doc.FindMember(name);
    return it != doc.MemberEnd() && it->value.IsNumber() ? it->value.GetDouble() : 0.0;
  };
  auto readings = doc.FindMember("readings");
  auto power = doc.FindMember("powerOn");
  if (readings != doc.MemberEnd() && readings->value.IsString()) {
    snapshot.readings =
        MakeReadings(std::string(readings->value.GetString(), readings->value.GetStringLength()));
  }
  if (power != doc.MemberEnd() && power->value.IsBool()) snapshot.powerOn = power->value.GetBool();
  auto health = doc.FindMember("health");
  if (health != doc.MemberEnd() && health->value.IsString()) {
    snapshot.health =
        MakeHealth(std::string(health->value.GetString(), health->value.GetStringLength()));
  }
  snapshot.readingsTime = number("readingsTime");
  snapshot.lastSuccess = number("lastSuccess");
  snapshot.reads = static_cast<uint64_t>(number("reads"));
  snapshot.failures = static_cast<uint64_t>(number("failures"));
  return true;
}

bool SaveState(const std::string& path, const Snapshot& snapshot, std::string& error) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
  w.StartObject();
  if (snapshot.readings) {
    w.Key("readings");
    w.String(snapshot.readings->document.c_str(),
             static_cast<rapidjson::SizeType>(snapshot.readings->document.size()));
  }
  if (snapshot.health) {
    w.Key("health");
    w.String(snapshot.health->document.c_str(),
             static_cast<rapidjson::SizeType>(snapshot.health->document.size()));
  }
  if (snapshot.powerOn) {
    w.Key("powerOn");
    w.Bool(*snapshot.powerOn);
  }
  w.Key("readingsTime");
  w.Double(snapshot.readingsTime);
  w.Key("lastSuccess");
  w.Double(snapshot.lastSuccess);
  w.Key("reads");
  w.Uint64(snapshot.reads);
  w.Key("failures");
  w.Uint64(snapshot.failures);
  w.EndObject();
  return WriteAtomically(path, std::string(buffer.GetString(), buffer.GetSize()) + "\n", error);
}
