#include "resources/chassis.h"

#include <rapidjson/document.h>

#include "platform/tessel/http.h"
#include "resources/fetched_document.h"
#include "resources/inventory.h"
#include "resources/readings.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

namespace {

constexpr char kExpand[] = "?$expand=.($levels=1)";

// Probes that the chassis has a Sensors collection, so that reading it later
// is one expanded request. found is false when the BMC answers 404.
int ProbeSensors(const Inventory& inventory, const std::string& sensorsUri, milliseconds timeout,
                 bool& found) {
  std::string probe;
  const int result = inventory.Requests().Get(sensorsUri, probe, timeout);
  found = result == RedfishStatusOk;
  return result == Tessel::Http::ResponseCode::NotFound ? RedfishStatusOk : result;
}

int DiscoverChassis(Inventory& inventory, const std::string& id, milliseconds timeout) {
  const std::string sensorsUri = ChildUri(inventory, "Chassis", id, "Sensors");
  bool found = false;
  const int result = ProbeSensors(inventory, sensorsUri, timeout, found);
  if (found) inventory.chassis.push_back({id, sensorsUri + kExpand});
  return result;
}

// The last path segment of an "@odata.id", for a chassis without an "Id".
std::string LastSegment(std::string id) {
  while (!id.empty() && id.back() == '/') id.pop_back();
  return id.substr(id.find_last_of('/') + 1);
}

// Where a chassis' readings are: its Sensors collection, else its Thermal and
// Power resources, inline in the expanded chassis when the BMC expands them.
int DiscoverReadings(Inventory& inventory, const std::string& id, milliseconds timeout) {
  ReadingsSourceRecord source{id, LastSegment(id), false, {}};
  const std::string sensorsUri = inventory.BaseUrl() + id + "/Sensors";
  bool found = false;
  int result = ProbeSensors(inventory, sensorsUri, timeout, found);
  if (result != RedfishStatusOk) return result;
  if (found) {
    source.sensors = true;
    source.readUris.push_back(sensorsUri + kExpand);
  } else {
    std::string expanded = inventory.BaseUrl() + id + kExpand;
    FetchedDocument fetched;
    result =
        FetchDocument(inventory.Requests(), nullptr, expanded, timeout, BodyCheck::Parse, fetched);
    if (result == Tessel::Http::ResponseCode::BadRequest) {
      // A BMC that refuses the query still links its Thermal and Power.
      expanded = inventory.BaseUrl() + id;
      result = FetchDocument(inventory.Requests(), nullptr, expanded, timeout, BodyCheck::Parse,
                             fetched);
    }
    const rapidjson::Document& chassis = fetched.document;
    if (result == Tessel::Http::ResponseCode::NotFound) return RedfishStatusOk;
    if (result != RedfishStatusOk) return result;
    std::string thermal, power;
    ThermalAndPowerLinks(chassis, thermal, power);
    if (HasInlineThermalOrPower(chassis)) {
      source.readUris.push_back(expanded);
    } else {
      for (const std::string* link : {&thermal, &power}) {
        if (!link->empty()) source.readUris.push_back(inventory.BaseUrl() + *link);
      }
    }
  }
  if (!source.readUris.empty()) inventory.readings.push_back(std::move(source));
  return RedfishStatusOk;
}

int ReadChassisReadings(Inventory& inventory, const ReadingsSourceRecord& source,
                        milliseconds timeout, ChassisReadings& out) {
  out = ChassisReadings{source.id, source.uri, source.sensors ? "Sensors" : "ThermalPower", {}};
  for (const std::string& uri : source.readUris) {
    FetchedDocument fetched;
    int result =
        FetchDocument(inventory.Requests(), nullptr, uri, timeout, BodyCheck::Parse, fetched);
    if (result != RedfishStatusOk) return result;
    const rapidjson::Document& document = fetched.document;
    if (document.HasParseError() || !document.IsObject()) return RedfishStatusUnexpectedJson;
    if (source.sensors) {
      result = ReadingsOfSensors(document, out.sensors);
      if (result != RedfishStatusOk) return result;
      continue;
    }
    // The expanded chassis holds both; a Thermal or Power resource one each.
    const rapidjson::Value* thermal = JsonMember(document, "Thermal");
    const rapidjson::Value* power = JsonMember(document, "Power");
    ReadingsOfThermal(thermal != nullptr ? *thermal : document, out.sensors);
    ReadingsOfPower(power != nullptr ? *power : document, out.sensors);
  }
  return RedfishStatusOk;
}

}  // namespace

int Inventory::PopulateChassis(milliseconds timeout) {
  return PopulateOnce(chassisPopulated, "/redfish/v1/Chassis", timeout,
                      [&](const std::string& id) { return DiscoverChassis(*this, id, timeout); });
}

int Inventory::PopulateReadings(milliseconds timeout) {
  return PopulateOnce(readingsPopulated, "/redfish/v1/Chassis", timeout,
                      [&](const std::string& id) { return DiscoverReadings(*this, id, timeout); });
}

int ReadSensorInfo(Inventory& inventory, std::string& sensorJson, milliseconds timeout,
                   uint8_t chassisIndex) {
  int result = inventory.PopulatedChassis(timeout, chassisIndex);
  if (result != RedfishStatusOk) return result;
  FetchedDocument fetched;
  result =
      FetchDocument(inventory.Requests(), "SENSOR_URI: %1",
                    inventory.chassis[chassisIndex].sensorsUri, timeout, BodyCheck::Parse, fetched);
  if (result != RedfishStatusOk) return result;
  TESSEL_LOG(inventory.Logger(), 5, "SENSOR_URI JSON: %1", fetched.body);
  // Parsed only to confirm it is an object; the caller gets the text as sent.
  if (fetched.document.HasParseError() || !fetched.document.IsObject()) {
    return RedfishStatusUnexpectedJson;
  }
  sensorJson = fetched.body;
  return RedfishStatusOk;
}

int ReadSensorReadings(Inventory& inventory, milliseconds timeout, std::string& document) {
  int result = inventory.PopulateReadings(timeout);
  if (result != RedfishStatusOk) return result;
  if (inventory.readings.empty()) {
    NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusNoMember,
                "no chassis has a Sensors collection or Thermal and Power readings");
    return RedfishStatusNoMember;
  }
  std::vector<ChassisReadings> all(inventory.readings.size());
  for (size_t i = 0; i < all.size(); ++i) {
    result = ReadChassisReadings(inventory, inventory.readings[i], timeout, all[i]);
    if (result != RedfishStatusOk) return result;
  }
  document = ReadingsDocument(all);
  return RedfishStatusOk;
}

}  // namespace redfish
