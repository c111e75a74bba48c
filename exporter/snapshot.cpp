#include "snapshot.h"

#include "bmcredfish.h"

std::shared_ptr<const SensorReadings> MakeReadings(std::string document) {
  toolkit::Readings parsed;
  if (!toolkit::ParseReadings(document, parsed)) return nullptr;
  auto readings = std::make_shared<SensorReadings>();
  readings->document = std::move(document);
  readings->chassis = std::move(parsed.chassis);
  readings->sensors = std::move(parsed.sensors);
  return readings;
}

std::shared_ptr<const HealthState> MakeHealth(std::string document) {
  auto health = std::make_shared<HealthState>();
  if (!toolkit::ParseHealth(document, health->parsed)) return nullptr;
  health->document = std::move(document);
  return health;
}

void ApplyRead(Snapshot& snapshot, const ReadResult& read, double now) {
  snapshot.haveRead = true;
  snapshot.systems = read.systems;
  snapshot.sensors = read.sensors;
  snapshot.readSeconds = read.seconds;
  snapshot.log = read.log;
  snapshot.logState = read.logState;
  if (read.systems.result == 0) snapshot.powerOn = read.powerOn;
  if (read.sensors.result == 0) {
    if (auto readings = MakeReadings(read.readings)) {
      snapshot.readings = std::move(readings);
      snapshot.readingsTime = now;
    } else {
      snapshot.sensors = {REDFISH_ERR_UNEXPECTED_JSON, REDFISH_LINK_DOCUMENT};
    }
  }
  snapshot.healthRead = read.healthRead;
  snapshot.healthCall = read.healthCall;
  if (read.healthRead && read.healthCall.result == 0) {
    if (auto health = MakeHealth(read.healthDocument)) {
      snapshot.health = std::move(health);
    } else {
      snapshot.healthCall = {REDFISH_ERR_UNEXPECTED_JSON, REDFISH_LINK_DOCUMENT};
    }
  }
  ++snapshot.reads;
  if (snapshot.LastReadOk()) {
    snapshot.lastSuccess = now;
  } else {
    ++snapshot.failures;
  }
  snapshot.stale = !snapshot.LastReadOk();
}
