#pragma once

// Helpers of the tests run by tools/host-sim: its environment, the library
// loaded as a host service loads it, the emulator's control endpoint and the
// JSON-lines request logs of the emulator, the proxy and its stand-in.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "bmcredfish.h"

namespace it {

inline std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

// The exported functions, from a dlopen of E2E_LIBRARY with the switch on.
struct Library {
  void* handle = nullptr;
  decltype(&Redfish_GetPowerState) powerState = nullptr;
  decltype(&Redfish_GetMacAddress) macAddress = nullptr;
  decltype(&Redfish_GetSensorsInfo) sensors = nullptr;
  decltype(&Redfish_PowerOperation) power = nullptr;
  decltype(&Redfish_CloseConnection) close = nullptr;
  decltype(&cleanup) closeAll = nullptr;

  template <typename F>
  void Bind(F& fn, const char* name) {
    fn = reinterpret_cast<F>(dlsym(handle, name));
    if (fn == nullptr) throw std::runtime_error(std::string("missing ") + name);
  }
  Library() {
    handle = dlopen(Env("E2E_LIBRARY").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw std::runtime_error(dlerror());
    Bind(powerState, "Redfish_GetPowerState");
    Bind(macAddress, "Redfish_GetMacAddress");
    Bind(sensors, "Redfish_GetSensorsInfo");
    Bind(power, "Redfish_PowerOperation");
    Bind(close, "Redfish_CloseConnection");
    Bind(closeAll, "cleanup");
    void (*init)() = nullptr;
    uint8_t* (*state)(const char*) = nullptr;
    Bind(init, "FeatureState_Init");
    Bind(state, "GetFeatureState_Slow");
    init();
    *state("REDFISH") = 1;
  }
};

inline Library& Lib() {
  static Library lib;
  return lib;
}

// POSTs body to the emulator's control endpoint; through a file, so that any
// bytes pass the shell.
inline void Control(const std::string& path, const std::string& body) {
  const std::string file = Env("HOST_SIM_DIR") + "/control.json";
  std::ofstream(file) << body;
  const std::string cmd =
      "curl -sfk -o /dev/null -X POST -H 'Content-Type: application/json' --data-binary @" + file +
      " " + Env("EMULATOR_CONTROL") + path;
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

inline std::string Lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// One line of a request log; header names in lower case.
struct Logged {
  std::map<std::string, std::string> fields;  // the string-valued ones
  std::map<std::string, std::string> headers;
  int status = 0;
  std::string operator[](const std::string& name) const {
    auto it = fields.find(name);
    return it == fields.end() ? "" : it->second;
  }
  std::string Header(const std::string& name) const {
    auto it = headers.find(Lower(name));
    return it == headers.end() ? "" : it->second;
  }
};

inline std::vector<Logged> ReadLog(const std::string& file) {
  std::vector<Logged> out;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    rapidjson::Document d;
    d.Parse(line.c_str(), line.size());
    if (d.HasParseError() || !d.IsObject()) continue;
    Logged l;
    for (auto& m : d.GetObject()) {
      if (m.value.IsString())
        l.fields[m.name.GetString()] = std::string(m.value.GetString(), m.value.GetStringLength());
    }
    if (d.HasMember("status") && d["status"].IsInt()) l.status = d["status"].GetInt();
    if (d.HasMember("headers") && d["headers"].IsObject()) {
      for (auto& m : d["headers"].GetObject()) {
        if (m.value.IsString()) l.headers[Lower(m.name.GetString())] = m.value.GetString();
      }
    }
    out.push_back(std::move(l));
  }
  return out;
}

// One field of every line of a request log.
inline std::vector<std::string> Field(const std::string& file, const char* name) {
  std::vector<std::string> out;
  for (const auto& l : ReadLog(file)) out.push_back(l[name]);
  return out;
}

}  // namespace it
