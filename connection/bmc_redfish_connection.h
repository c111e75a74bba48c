#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "bmcredfish.h"
#include "platform/export.h"
#include "platform/tessel/logging.h"
#include "resources/redfish_records.h"
#include "transport/bmc_http_connection.h"
#include "utils/lazy_ref.h"
#include "utils/log_level.h"

namespace redfish {

// One BMC's Redfish service, reached through the local proxy. Discovers the
// BMC's Systems, Managers and Chassis once and serves later calls from them.
class BMCREDFISH_EXPORT BmcRedfishConnection {
 public:
  using RedfishSystem = RedfishSystemRecord;
  using RedfishManager = RedfishManagerRecord;
  using RedfishChassis = RedfishChassisRecord;

  // Throws the failing result as an int, or RedfishStatusCredentialsEncoding
  // as a RedfishStatus when the credentials cannot be encoded.
  BmcRedfishConnection(const std::string& host, const std::string& user,
                       const std::string& password,
                       const Tessel::Ref<Tessel::Service::Logger>& logger);
  ~BmcRedfishConnection();
  BmcRedfishConnection(const BmcRedfishConnection&) = delete;
  BmcRedfishConnection& operator=(const BmcRedfishConnection&) = delete;

  bool EncodeUserPass(const std::string& user, const std::string& password);
  std::string GetHttpUrl();
  bool IsSessionActive();
  int CreateSession();
  int DeleteSession();
  int RefreshSession(int value);

  int MakeHttpRequestGet(const std::string& url, std::string& response,
                         std::chrono::milliseconds timeout);
  int MakeHttpRequestPost(const std::string& url, const std::string& body, std::string& response,
                          bool skipAuth, std::chrono::milliseconds timeout);
  int MakeHttpRequestDelete(const std::string& url, std::string& response,
                            std::chrono::milliseconds timeout);

  int PopulateSystems(std::chrono::milliseconds timeout);
  int PopulateManagers(std::chrono::milliseconds timeout);
  int PopulateChassis(std::chrono::milliseconds timeout);

  int ParseManufacturer(RedfishSystem& system, std::chrono::milliseconds timeout);
  int ParseRedfishPowerActions(const std::string& json, RedfishSystem& system, RedfishOem oem);
  int GetSystemPowerState(std::string& powerState, std::chrono::milliseconds timeout,
                          uint8_t systemIndex);
  int PowerOperation(REDFISHCMD command, std::chrono::milliseconds timeout, uint8_t systemIndex);

  int GetManagerEthernetNicCount(uint8_t managerIndex, uint8_t& nicCount,
                                 std::chrono::milliseconds timeout);
  int GetManagerEthernetMac(std::string& mac, std::chrono::milliseconds timeout,
                            uint8_t managerIndex, uint8_t nicIndex);

  int GetChassisSensorInfo(std::string& sensorJson, std::chrono::milliseconds timeout,
                           uint8_t chassisIndex);

  // Written by every constructor while other connections read it.
  static PublishedPtr<BmcHttpConnection> _bmc_con;

 private:
  // Discovers the systems, then checks that the index names one of them.
  int PopulatedSystem(std::chrono::milliseconds timeout, uint8_t systemIndex);

  std::string host;
  std::string user;
  std::string password;
  Tessel::Service::Logger* logger;
  std::string reserved;
  std::string _jwt;
  std::string baseUrl;
  std::optional<std::string> sessionToken;
  std::string sessionLocation;
  int64_t reservedWord = 0;

 public:
  std::vector<RedfishManager> managers;
  bool managersPopulated = false;
  std::vector<RedfishSystem> systems;
  bool systemsPopulated = false;
  std::vector<RedfishChassis> chassis;
  bool chassisPopulated = false;

 private:
  std::mutex requestMutex;
  std::mutex populateMutex;
};

}  // namespace redfish
