#include "bmc_reader.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>

#include "bmcredfish.h"
#include "textfile.h"
#include "toolkit/bmc_text.h"
#include "toolkit/failure_text.h"
#include "toolkit/result_text.h"
#include "toolkit/systems.h"

namespace {

// The failing call's outcome, and a line saying why, from the library's record.
CallOutcome Outcome(const char* call, int result, std::string& why) {
  if (result == 0) return {0, REDFISH_LINK_NONE};
  const RedfishFailure failure = toolkit::LastFailure(result);
  if (!why.empty()) why += "; ";
  why += std::string(call) + ": result " + std::to_string(result) + " (" +
         toolkit::ResultText(result) + "), link " + toolkit::LinkLabel(failure.link);
  const std::string cause = toolkit::FailureCause(failure);
  if (!cause.empty()) why += ": " + toolkit::Printable(cause);
  return {result, failure.link};
}

// The library's calls leave only caller-made failures as exceptions: the one
// that is not a standard exception is its credentials-encoding status.
template <typename Call>
int Guarded(Call call) {
  try {
    return call();
  } catch (const std::exception&) {
    return REDFISH_ERR_TRANSPORT;
  } catch (...) {
    return REDFISH_ERR_CREDENTIALS_ENCODING;
  }
}

}  // namespace

void BmcReader::KeepLogIn(std::string stateFile) {
  logFile_ = std::move(stateFile);
  std::ifstream in(logFile_);
  std::stringstream text;
  text << in.rdbuf();
  if (in && !log_.Load(text.str())) {
    std::fprintf(stderr, "bmcredfish-exporter: %s holds no event log tally; starting afresh\n",
                 logFile_.c_str());
  }
}

void BmcReader::ReadLog(ReadResult& read, std::string& why) {
  const char* user = credentials_.user.c_str();
  const char* password = credentials_.password.c_str();
  char* json = nullptr;
  auto call = [&] {
    const std::string& cursor = log_.Cursor();
    return Guarded([&] {
      return Redfish_GetLogEntries(user, password, nullptr, timeoutMs_,
                                   cursor.empty() ? nullptr : cursor.c_str(), &json);
    });
  };
  int result = call();
  if (result == REDFISH_ERR_INVALID_ARGUMENT && !log_.Cursor().empty()) {
    // A cursor of another library version, or a damaged state: read whole.
    std::fprintf(stderr,
                 "bmcredfish-exporter: the event log cursor was refused; reading the "
                 "log from its start\n");
    log_.Forget();
    result = call();
  }
  const double now = WallSeconds();
  if (result != 0 || json == nullptr || !log_.Apply(json, now)) {
    if (result == 0) result = REDFISH_ERR_UNEXPECTED_JSON;
    log_.Failed();
    Outcome("log_entries", result, why);
  }
  Redfish_FreeText(json);
  read.log = log_.Series(now);
  read.logState = log_.Save();
  std::string error;
  if (!logFile_.empty() && !WriteAtomically(logFile_, read.logState + "\n", error)) {
    std::fprintf(stderr, "bmcredfish-exporter: %s\n", error.c_str());
  }
}

ReadResult BmcReader::operator()() {
  const auto start = std::chrono::steady_clock::now();
  const char* user = credentials_.user.c_str();
  const char* password = credentials_.password.c_str();
  ReadResult read;
  std::string why;
  char* systems = nullptr;
  const int power =
      Guarded([&] { return Redfish_GetSystems(user, password, nullptr, timeoutMs_, &systems); });
  read.systems = Outcome("systems", power, why);
  std::vector<toolkit::System> list;
  if (power == 0 && systems != nullptr && toolkit::ParseSystems(systems, list) && !list.empty()) {
    read.powerOn = list[0].powerState == "On";
  }
  Redfish_FreeText(systems);
  char* json = nullptr;
  const int sensors = Guarded(
      [&] { return Redfish_GetSensorReadings(user, password, nullptr, timeoutMs_, &json); });
  read.sensors = Outcome("sensor_readings", sensors, why);
  if (sensors == 0 && json != nullptr) read.readings = json;
  if (readHealth_) {
    read.healthRead = true;
    char* health = nullptr;
    const char* previous = lastHealth_.empty() ? nullptr : lastHealth_.c_str();
    const int result = Guarded([&] {
      return Redfish_GetHealth(user, password, nullptr, timeoutMs_, previous,
                               sensors == 0 ? json : nullptr, &health);
    });
    read.healthCall = Outcome("health", result, why);
    if (result == 0 && health != nullptr) read.healthDocument = lastHealth_ = health;
    Redfish_FreeText(health);
  }
  Redfish_FreeText(json);
  ReadLog(read, why);
  read.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  if (why != lastFailure_) {
    if (why.empty()) {
      std::fprintf(stderr, "bmcredfish-exporter: BMC reads succeed again\n");
    } else {
      std::fprintf(stderr, "bmcredfish-exporter: BMC read failed: %s\n", why.c_str());
    }
    lastFailure_ = why;
  }
  return read;
}
