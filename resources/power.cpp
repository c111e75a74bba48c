#include <rapidjson/document.h>
#include <rapidjson/pointer.h>

#include <cstring>

#include "connection/bmc_redfish_connection.h"
#include "resources/inventory.h"
#include "utils/bmc_redfish_utils.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;
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

}  // namespace

int BmcRedfishConnection::PopulateSystems(std::chrono::milliseconds timeout) {
  return PopulateOnce(*this, populateMutex, systemsPopulated, logger,
                      baseUrl + "/redfish/v1/Systems", timeout, [&](const std::string& id) -> int {
                        RedfishSystem system;
                        system.uri = id;
                        system.powerStateUri = baseUrl + id + "/?$select=PowerState";
                        system.manufacturerUri = baseUrl + id + "/?$select=Manufacturer";
                        int status = ParseManufacturer(system, timeout);
                        if (status != RedfishStatusOk) return status;

                        std::string actions;
                        status = FetchLogged(*this, logger, "Embedded: %1",
                                             baseUrl + id + "/?$select=Actions", actions, timeout);
                        if (status != RedfishStatusOk) return status;
                        system.resetUri = baseUrl;
                        status = ParseRedfishPowerActions(actions, system, system.oem);
                        if (status != RedfishStatusOk) return status;
                        systems.push_back(system);
                        return RedfishStatusOk;
                      });
}

int BmcRedfishConnection::ParseRedfishPowerActions(const std::string& json, RedfishSystem& system,
                                                   RedfishOem oem) {
  rapidjson::Document document;
  int result = BmcRedfishUtils::VerifyJson(logger, json, document, false);
  if (result != RedfishStatusOk) return result;
  if (!document.IsObject()) return RedfishStatusUnexpectedJson;

  const rapidjson::Value* actions = JsonMember(document, "Actions");
  const rapidjson::Value* reset = actions ? JsonMember(*actions, "#ComputerSystem.Reset") : nullptr;
  std::string target;
  if (reset == nullptr || !JsonString(*reset, "target", target)) return RedfishStatusUnexpectedJson;
  std::string actionInfo;
  if (oem == RedfishOemLenovo && !JsonString(*reset, "@Redfish.ActionInfo", actionInfo)) {
    return RedfishStatusUnexpectedJson;
  }
  system.resetUri += target;
  Service::LogInternal(logger, 5, "Target: %1", system.resetUri);

  rapidjson::Document actionInfoDocument;
  const rapidjson::Value* allowable = nullptr;
  switch (oem) {
    case RedfishOemDell:
    case RedfishOemHPE:
      allowable = rapidjson::Pointer(kSystemAllowableValues).Get(document);
      if (allowable == nullptr) return RedfishStatusDocumentIncomplete;
      break;
    case RedfishOemLenovo: {
      const std::string actionInfoUri = baseUrl + actionInfo;
      Service::LogInternal(logger, 5, "actionInfoUri: %1", actionInfoUri);
      std::string body;
      result = MakeHttpRequestGet(actionInfoUri, body, kPowerRequestTimeout);
      if (result != RedfishStatusOk) return result;
      Service::LogInternal(logger, 5, "actionInfoJson: %1", body);
      result = BmcRedfishUtils::VerifyJson(logger, body, actionInfoDocument, false);
      if (result != RedfishStatusOk) return result;
      if (!actionInfoDocument.IsObject()) return RedfishStatusUnexpectedJson;
      allowable = rapidjson::Pointer(kActionInfoAllowableValues).Get(actionInfoDocument);
      if (allowable == nullptr) return RedfishStatusDocumentIncomplete;
      break;
    }
    default:
      return RedfishStatusUnknownVendor;
  }

  if (!allowable->IsArray()) return RedfishStatusUnexpectedJson;
  for (const rapidjson::Value& value : allowable->GetArray()) {
    if (!value.IsString()) return RedfishStatusUnexpectedJson;
    const std::string directive(value.GetString(), value.GetStringLength());
    Service::LogInternal(logger, 5, "Power Directive: %1", directive);
    for (int i = 0; i < kResetTypeCount; ++i) {
      if (directive == kResetTypes[i]) {
        system.powerActions[directive] = static_cast<REDFISHCMD>(i);
        break;
      }
    }
  }
  return RedfishStatusOk;
}

int BmcRedfishConnection::PopulatedSystem(milliseconds timeout, uint8_t systemIndex) {
  int result = PopulateSystems(timeout);
  if (result != RedfishStatusOk) return result;
  return CheckIndex(logger, "System", systemIndex, systems.size());
}

int BmcRedfishConnection::GetSystemPowerState(std::string& powerState, milliseconds timeout,
                                              uint8_t systemIndex) {
  int result = PopulatedSystem(timeout, systemIndex);
  if (result != RedfishStatusOk) return result;
  std::string body;
  result = FetchLogged(*this, logger, "PowerState URI: %1", systems[systemIndex].powerStateUri,
                       body, timeout);
  if (result != RedfishStatusOk) return result;
  rapidjson::Document document;
  result = BmcRedfishUtils::VerifyJson(logger, body, document, false);
  if (result != RedfishStatusOk) return result;
  std::string state;
  if (!document.IsObject() || !JsonString(document, "PowerState", state)) {
    return RedfishStatusUnexpectedJson;
  }
  powerState = state;
  return RedfishStatusOk;
}

int BmcRedfishConnection::PowerOperation(REDFISHCMD command, milliseconds timeout,
                                         uint8_t systemIndex) {
  int result = PopulatedSystem(timeout, systemIndex);
  if (result != RedfishStatusOk) return result;
  // Discovered records never change (see resources/inventory.cpp), so this copy
  // is read without the populate mutex; the POST below takes the request mutex.
  const RedfishSystem system = systems[systemIndex];

  const std::string* resetType = nullptr;
  for (const auto& [name, value] : system.powerActions) {
    if (value == command) {
      resetType = &name;
      break;
    }
  }
  if (resetType == nullptr) return RedfishStatusCommandNotAllowed;

  const std::string body = "{\n      \"ResetType\" : \"" + *resetType + "\"\n   }";
  Service::LogInternal(logger, 5, "Power Command JSON: %1", body);
  Service::LogInternal(logger, 5, "Power Command URI: %1", system.resetUri);

  std::string response;
  result = MakeHttpRequestPost(system.resetUri, body, response, false, kPowerRequestTimeout);
  if (result == RedfishStatusOk) return RedfishStatusOk;
  if (IsNoActionStatus(system.oem, result)) return RedfishStatusNoActionNeeded;

  rapidjson::Document document;
  if (BmcRedfishUtils::VerifyJson(logger, response, document, true) != RedfishStatusOk) {
    if (LogsAt(logger, 5))
      Service::LogInternal(logger, 5, "Failed power command, JSON: %1", response);
  }
  return result;
}

}  // namespace redfish
