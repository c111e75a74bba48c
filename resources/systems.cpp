#include "resources/systems.h"

#include <rapidjson/document.h>

#include "resources/documents.h"
#include "resources/fetched_document.h"
#include "resources/inventory.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

namespace {

// The ActionInfo read and the reset itself use a fixed limit, whatever the
// caller gave for discovery.
constexpr milliseconds kPowerRequestTimeout{4000};
constexpr char kSystemAllowableValues[] =
    "/Actions/#ComputerSystem.Reset/ResetType@Redfish.AllowableValues";
constexpr char kActionInfoAllowableValues[] = "/Parameters/0/AllowableValues";

// The status by which each vendor answers a reset that needed no action.
bool IsNoActionStatus(RedfishOem oem, int result) {
  switch (oem) {
    case RedfishOemDell:
      return result == 409;
    case RedfishOemHPE:
      return result == 400;
    case RedfishOemLenovo:
      return result == 204;
  }
  return false;
}

int DiscoverSystem(Inventory& inventory, const std::string& id, milliseconds timeout) {
  RedfishSystemRecord system;
  system.uri = id;
  system.powerStateUri = inventory.BaseUrl() + id + "/?$select=PowerState";
  system.manufacturerUri = inventory.BaseUrl() + id + "/?$select=Manufacturer";
  int result = ReadManufacturer(inventory, system, timeout);
  if (result != RedfishStatusOk) return result;

  const std::string actionsUri = inventory.BaseUrl() + id + "/?$select=Actions";
  TESSEL_LOG(inventory.Logger(), 5, "Embedded: %1", actionsUri);
  std::string actions;
  result = inventory.Requests().Get(actionsUri, actions, timeout);
  if (result != RedfishStatusOk) return result;
  system.resetUri = inventory.BaseUrl();
  result = ReadPowerActions(inventory, actions, system, system.oem);
  if (result != RedfishStatusOk) return result;
  inventory.systems.push_back(system);
  return RedfishStatusOk;
}

// The allowable reset types of a vendor that lists them in an ActionInfo.
int ActionInfoValues(Inventory& inventory, const std::string& actionInfo, rapidjson::Document& info,
                     const rapidjson::Value*& values) {
  const std::string uri = inventory.BaseUrl() + actionInfo;
  TESSEL_LOG(inventory.Logger(), 5, "actionInfoUri: %1", uri);
  std::string body;
  int result = inventory.Requests().Get(uri, body, kPowerRequestTimeout);
  if (result != RedfishStatusOk) return result;
  TESSEL_LOG(inventory.Logger(), 5, "actionInfoJson: %1", body);
  result = BmcRedfishUtils::VerifyJson(inventory.Logger(), body, info, false);
  if (result != RedfishStatusOk) return result;
  if (!info.IsObject()) return RedfishStatusUnexpectedJson;
  return AllowableValuesAt(info, kActionInfoAllowableValues, values);
}

}  // namespace

int Inventory::PopulateSystems(milliseconds timeout) {
  return PopulateOnce(systemsPopulated, "/redfish/v1/Systems", timeout,
                      [&](const std::string& id) { return DiscoverSystem(*this, id, timeout); });
}

int ReadManufacturer(Inventory& inventory, RedfishSystemRecord& system, milliseconds timeout) {
  FetchedDocument fetched;
  int result = FetchDocument(inventory.Requests(), nullptr, system.manufacturerUri, timeout,
                             BodyCheck::Parse, fetched);
  if (result != RedfishStatusOk) return result;
  std::string manufacturer;
  result = ManufacturerOf(fetched.document, manufacturer);
  if (result == RedfishStatusOk) {
    result = BmcRedfishUtils::StringToRedfishOem(inventory.Logger(), manufacturer, system.oem);
  }
  if (result == RedfishStatusUnknownVendor) {
    NoteFailure(REDFISH_LINK_DISCOVERY, result,
                "the system's Manufacturer '" + manufacturer + "' is none of Dell, HPE, Lenovo");
  }
  return result;
}

int ReadPowerActions(Inventory& inventory, const std::string& json, RedfishSystemRecord& system,
                     RedfishOem oem) {
  rapidjson::Document document;
  int result = BmcRedfishUtils::VerifyJson(inventory.Logger(), json, document, false);
  if (result != RedfishStatusOk) return result;
  ResetAction action;
  result = ResetActionOf(document, action);
  if (result != RedfishStatusOk) return result;
  if (oem == RedfishOemLenovo && action.actionInfo.empty()) return RedfishStatusUnexpectedJson;
  system.resetUri += action.target;
  TESSEL_LOG(inventory.Logger(), 5, "Target: %1", system.resetUri);

  rapidjson::Document info;
  const rapidjson::Value* values = nullptr;
  switch (oem) {
    case RedfishOemDell:
    case RedfishOemHPE:
      result = AllowableValuesAt(document, kSystemAllowableValues, values);
      break;
    case RedfishOemLenovo:
      result = ActionInfoValues(inventory, action.actionInfo, info, values);
      break;
    default:
      return RedfishStatusUnknownVendor;
  }
  if (result != RedfishStatusOk) return result;
  std::vector<std::string> seen;
  result = CommandsOf(*values, system.powerActions, seen);
  for (const std::string& directive : seen) {
    TESSEL_LOG(inventory.Logger(), 5, "Power Directive: %1", directive);
  }
  return result;
}

int ReadPowerState(Inventory& inventory, std::string& powerState, milliseconds timeout,
                   uint8_t systemIndex) {
  int result = inventory.PopulatedSystem(timeout, systemIndex);
  if (result != RedfishStatusOk) return result;
  FetchedDocument fetched;
  result = FetchDocument(inventory.Requests(), "PowerState URI: %1",
                         inventory.systems[systemIndex].powerStateUri, timeout, BodyCheck::Verify,
                         fetched);
  return result != RedfishStatusOk ? result : PowerStateOf(fetched.document, powerState);
}

int SendPowerCommand(Inventory& inventory, REDFISHCMD command, milliseconds timeout,
                     uint8_t systemIndex) {
  int result = inventory.PopulatedSystem(timeout, systemIndex);
  if (result != RedfishStatusOk) return result;
  const RedfishSystemRecord system = inventory.systems[systemIndex];

  const std::string* resetType = nullptr;
  for (const auto& [name, value] : system.powerActions) {
    if (value == command) {
      resetType = &name;
      break;
    }
  }
  if (resetType == nullptr) {
    const bool known = command >= 0 && command < kResetTypeCount;
    NoteFailure(REDFISH_LINK_GUARD, RedfishStatusCommandNotAllowed,
                std::string("the system does not advertise the reset type ") +
                    (known ? kResetTypes[command] : "of that command"));
    return RedfishStatusCommandNotAllowed;
  }

  const std::string body = "{\n      \"ResetType\" : \"" + *resetType + "\"\n   }";
  TESSEL_LOG(inventory.Logger(), 5, "Power Command JSON: %1", body);
  TESSEL_LOG(inventory.Logger(), 5, "Power Command URI: %1", system.resetUri);
  std::string response;
  result = inventory.Requests().Post(system.resetUri, body, response, kPowerRequestTimeout);
  if (result == RedfishStatusOk) return RedfishStatusOk;
  if (IsNoActionStatus(inventory.systems[systemIndex].oem, result)) {
    return RedfishStatusNoActionNeeded;
  }

  rapidjson::Document document;
  if (BmcRedfishUtils::VerifyJson(inventory.Logger(), response, document, true) !=
      RedfishStatusOk) {
    TESSEL_LOG(inventory.Logger(), 5, "Failed power command, JSON: %1", response);
  }
  return result;
}

int AllowedCommands(Inventory& inventory, milliseconds timeout, uint8_t systemIndex,
                    unsigned int& commands) {
  const int result = inventory.PopulatedSystem(timeout, systemIndex);
  if (result != RedfishStatusOk) return result;
  unsigned int mask = 0;
  for (const auto& entry : inventory.systems[systemIndex].powerActions) {
    mask |= 1u << static_cast<unsigned int>(entry.second);
  }
  commands = mask;
  return RedfishStatusOk;
}

}  // namespace redfish
