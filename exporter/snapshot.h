#pragma once

// What the exporter knows about the BMC: the outcome of its last read and the
// last good values, which it keeps serving (marked stale) when a read fails
// or runs late, so that no series vanishes.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "log_metrics.h"
#include "toolkit/health.h"
#include "toolkit/readings.h"

// The result and failing link (RedfishLink) of one library call.
struct CallOutcome {
  int result = 0;
  int link = 0;
};

// One read of the BMC: its systems (the power state, whatever the BMC's
// maker), every chassis' readings, then the hardware's health (unless the
// exporter was told not to read it).
struct ReadResult {
  CallOutcome systems;
  CallOutcome sensors;
  std::optional<bool> powerOn;  // the first system's; none for a BMC without systems
  std::string readings;         // the library's readings document, when sensors.result is 0
  bool healthRead = false;
  CallOutcome healthCall;
  std::string healthDocument;  // the library's health document, when health.result is 0
  LogSeries log;               // the event log's series after this read
  std::string logState;        // the tally behind them, to keep (LogTally::Save)
  double seconds = 0;          // how long the read took
  bool Ok() const {
    return systems.result == 0 && sensors.result == 0 && (!healthRead || healthCall.result == 0);
  }
};

// The health document as the library sent it and as parsed.
struct HealthState {
  std::string document;
  toolkit::Health parsed;
};

// Sensor readings as the library sent them and as parsed.
struct SensorReadings {
  std::string document;
  std::vector<toolkit::Chassis> chassis;
  std::vector<toolkit::Sensor> sensors;
};

struct Snapshot {
  bool haveRead = false;  // a read has completed
  CallOutcome systems;    // outcomes of the last completed read
  CallOutcome sensors;
  bool healthRead = false;
  CallOutcome healthCall;
  std::optional<bool> powerOn;                     // last good power state
  std::shared_ptr<const SensorReadings> readings;  // last good readings (null: none yet)
  std::shared_ptr<const HealthState> health;       // last good health document (null: none yet)
  double readingsTime = 0;                         // wall-clock seconds of the read that gave them
  double lastSuccess = 0;  // wall-clock seconds of the last read with both calls good
  double readSeconds = 0;  // duration of the last completed read
  uint64_t reads = 0;
  uint64_t failures = 0;
  bool stale = false;  // this answer's values are not from a current, good read
  LogSeries log;
  std::string logState;

  bool LastReadOk() const {
    return haveRead && systems.result == 0 && sensors.result == 0 &&
           (!healthRead || healthCall.result == 0);
  }
};

inline double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Folds a completed read into the snapshot, read at wall-clock time now.
void ApplyRead(Snapshot& snapshot, const ReadResult& read, double now);

// The library's readings document with its sensors; null when it is not of
// that shape.
std::shared_ptr<const SensorReadings> MakeReadings(std::string document);
// The library's health document, parsed; null when it is not of that shape.
std::shared_ptr<const HealthState> MakeHealth(std::string document);
