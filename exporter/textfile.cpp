#include "textfile.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fstream>
#include <sstream>

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
  auto log = doc.FindMember("log");
  if (log != doc.MemberEnd() && log->value.IsObject()) {
    rapidjson::StringBuffer kept;
    rapidjson::Writer<rapidjson::StringBuffer> w(kept);
    log->value.Accept(w);
    snapshot.logState.assign(kept.GetString(), kept.GetSize());
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
  if (!snapshot.logState.empty()) {
    w.Key("log");
    w.RawValue(snapshot.logState.c_str(), snapshot.logState.size(), rapidjson::kObjectType);
  }
  w.EndObject();
  return WriteAtomically(path, std::string(buffer.GetString(), buffer.GetSize()) + "\n", error);
}
