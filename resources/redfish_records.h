#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "bmcredfish.h"
#include "utils/redfish_oem.h"

namespace redfish {

// Inventory records of a connection. URIs built by discovery are full request
// targets (base URL included); "@odata.id" values are kept as the BMC gave them.
struct RedfishSystemRecord {
  std::string uri;
  std::string powerStateUri;
  std::string resetUri;
  std::string manufacturerUri;
  RedfishOem oem = RedfishOemDell;
  std::unordered_map<std::string, REDFISHCMD> powerActions;
};

struct RedfishManagerRecord {
  std::string uri;
  std::vector<std::string> nicMacUris;
};

struct RedfishChassisRecord {
  std::string uri;
  std::string sensorsUri;
};

// The Redfish ResetType string of each command, in command order.
constexpr const char* kResetTypes[] = {"On",
                                       "ForceOff",
                                       "ForceOn",
                                       "ForceRestart",
                                       "GracefulRestart",
                                       "GracefulShutdown",
                                       "PushPowerButton",
                                       "Nmi",
                                       "PowerCycle"};
constexpr int kResetTypeCount = sizeof kResetTypes / sizeof kResetTypes[0];

}  // namespace redfish
