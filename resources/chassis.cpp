#include "resources/chassis.h"

#include <rapidjson/document.h>

#include "platform/tessel/http.h"
#include "resources/fetched_document.h"
#include "resources/inventory.h"
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

}  // namespace

int Inventory::PopulateChassis(milliseconds timeout) {
  return PopulateOnce(chassisPopulated, "/redfish/v1/Chassis", timeout,
                      [&](const std::string& id) { return DiscoverChassis(*this, id, timeout); });
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

}  // namespace redfish
