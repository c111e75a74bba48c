#pragma once

// Every reading of a BMC once: the offers of all the documents read, merged
// per chassis. Pure: documents in, the readings document out.
//
// One physical reading is shown once, under the chassis that holds it:
//  - a Sensor is known by its URI; an excerpt naming it by DataSourceUri, or
//    another excerpt naming the same DataSourceUri, is that same reading;
//  - an excerpt without a DataSourceUri, and an entry of the deprecated
//    Thermal and Power arrays, is the same sensor as a Sensor of its chassis
//    whose Name or Id it bears;
//  - the newer models replace the deprecated ones: the temperatures of
//    Thermal where ThermalMetrics lists temperatures, its fans where
//    ThermalSubsystem lists fans, the supplies of Power where PowerSubsystem
//    lists supplies, its PowerControl where EnvironmentMetrics has PowerWatts.
// A reading shown once keeps the richest account of it (a Sensor's units,
// thresholds and health); one without a number takes a twin's number.

#include <optional>
#include <string>
#include <vector>

#include "resources/readings.h"

namespace redfish {

// What a chassis has of the newer models, learnt while walking it; the
// deprecated readings they replace are left out (see above).
struct NewerModels {
  bool temperatures = false;   // ThermalMetrics lists temperatures
  bool fans = false;           // ThermalSubsystem lists fans
  bool powerSupplies = false;  // PowerSubsystem lists power supplies
  bool chassisPower = false;   // EnvironmentMetrics has PowerWatts
};

struct ChassisOfReadings {
  std::string id;
  std::string odataId;
  NewerModels newer;
};

// A document that was read, for the chassis at that index of the list.
struct SourceDocument {
  SourceKind kind;
  size_t chassis;
  std::string path;  // as requested, without the base URL or a query
  const rapidjson::Value* document;
};

struct ChassisReadings {
  std::string id;
  std::string odataId;
  std::vector<std::string> sources;  // the resources its readings came from
  std::optional<double> powerWatts;  // the chassis' power figure, in watts
  std::string powerSource;           // the source of the reading it is
  std::optional<double> energyJoules;
  std::string energySource;
  std::vector<SensorReading> sensors;
};

// The chassis with readings, in the order given; used[i] says whether
// documents[i] gave the result anything (a reading, a number, a figure), so
// that a later read can skip the documents that did not.
void MergeReadings(const std::vector<ChassisOfReadings>& chassis,
                   const std::vector<SourceDocument>& documents, std::vector<ChassisReadings>& out,
                   std::vector<bool>& used, ReadNotes& notes);

// The document Redfish_GetSensorReadings returns.
std::string ReadingsDocument(const std::vector<ChassisReadings>& chassis);

}  // namespace redfish
