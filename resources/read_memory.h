#pragma once

// What the 1.1 reads of one connection keep between calls, under one lock of
// its own (the reads may run beside the 1.0 discovery walks): the query
// options the BMC takes, and what each read has learnt of where things are.

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "resources/health_document.h"

namespace redfish {

// What a BMC's service root says of the query options it takes
// (ProtocolFeaturesSupported), less those it has refused since.
struct QueryFeatures {
  bool select = false;           // $select
  bool expand = false;           // $expand=.($levels=N)
  unsigned expandMaxLevels = 0;  // the deepest $levels it takes (at least 1 when expand)
  bool topSkip = false;          // $top and $skip
};

struct ReadingsPlan;  // resources/sensor_readings.cpp

struct ReadMemory {
  std::mutex mutex;
  bool featuresKnown = false;
  QueryFeatures features;
  // The systems' "@odata.id", once read (Redfish_GetSystems).
  bool systemsKnown = false;
  std::vector<std::string> systems;
  // Where the readings are, once found (Redfish_GetSensorReadings).
  std::shared_ptr<const ReadingsPlan> readings;
  // What Redfish_GetSystems last saw, and when: the health read that follows
  // it closely (the exporter makes both) uses it, once.
  bool systemsSeenKnown = false;
  std::chrono::steady_clock::time_point systemsSeenAt;
  std::vector<SystemHealth> systemsSeen;
  // The managers' paths, for BMCs that cannot expand their collection.
  std::vector<std::string> managers;
  // Where the event log is, as a cursor without entries (Redfish_GetLogEntries).
  std::string logFound;
};

}  // namespace redfish
