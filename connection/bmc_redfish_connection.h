#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "bmcredfish.h"
#include "platform/export.h"
#include "platform/tessel/logging.h"
#include "transport/bmc_http_connection.h"
#include "utils/fifo_mutex.h"
#include "utils/lazy_ref.h"
#include "utils/redfish_oem.h"

namespace redfish {

struct RedfishSystemRecord;
struct RedfishManagerRecord;
struct RedfishChassisRecord;
class BmcRequests;
class Inventory;

// One BMC's Redfish service, reached through the local proxy: its credentials
// and its HTTP requests. What discovery learns of the BMC, and the operations
// on it, live in resources/ (Inventory), which sends its requests through a
// BmcRequests this connection provides; the methods below that name them are
// the entry points to that code.
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
  friend Inventory& InventoryOf(BmcRedfishConnection& connection);

  std::string host_;
  std::string user_;
  std::string password_;
  Tessel::Service::Logger* logger_;
  std::string reserved_;  // in the design's layout; nothing reads it
  std::string _jwt;
  std::string baseUrl_;
  // Token sessions are in the design but unused: nothing engages the token or
  // sets the location, so every request carries Basic credentials.
  std::optional<std::string> sessionToken_;
  std::string sessionLocation_;
  int64_t reservedWord_ = 0;  // in the design's layout; nothing reads it
  // A separate object rather than a base class, so the connection keeps no
  // virtual operations. Declared before the inventory, which uses it.
  std::unique_ptr<BmcRequests> requests_;
  std::unique_ptr<Inventory> inventory_;
  // Calls take their turns in the order they came: one host is one key, so
  // all of a service's threads queue here.
  FifoMutex requestMutex_;
};

// The records and walks of a connection, for the code in resources/.
Inventory& InventoryOf(BmcRedfishConnection& connection);

}  // namespace redfish
