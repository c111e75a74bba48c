#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "api/connection_registry.h"
#include "bmcredfish.h"
#include "utils/redfish_status.h"

using redfish::BmcRedfishConnection;
using redfish::GetOrCreateConnection;
using std::chrono::milliseconds;
namespace Service = Tessel::Service;

namespace {

// The prologue of every query: the switch, then the host's connection. The
// caller's reference keeps the connection alive while it is used.
int Connect(const char* user, const char* password, const char* host,
            std::shared_ptr<BmcRedfishConnection>& connection) {
  int result = redfish::Initialize();
  if (result != 0) return result;
  return GetOrCreateConnection(user, password, host, connection);
}

// A query that reads one text of the first system or chassis.
using TextReader = int (BmcRedfishConnection::*)(std::string&, milliseconds, uint8_t);

int ReadText(const char* user, const char* password, const char* host, unsigned int timeoutMs,
             TextReader read, std::string& text) {
  std::shared_ptr<BmcRedfishConnection> connection;
  const int result = Connect(user, password, host, connection);
  if (result != 0) return result;
  return ((*connection).*read)(text, milliseconds(timeoutMs), 0);
}

}  // namespace

extern "C" BMCREDFISH_API int Redfish_GetSensorsInfo(const char* user, const char* password,
                                                     const char* host, unsigned int timeoutMs,
                                                     char* buffer, unsigned int* length) {
  std::string info;
  const int result =
      ReadText(user, password, host, timeoutMs, &BmcRedfishConnection::GetChassisSensorInfo, info);
  if (result != 0) return result;
  Service::LogInternal(redfish::LibraryLogger(), 5, "Sensors Info '%1'", info);
  if (buffer != nullptr && length != nullptr) std::snprintf(buffer, *length, "%s", info.c_str());
  // The full length without the NUL, so a caller can size its buffer.
  if (length != nullptr) *length = static_cast<unsigned int>(info.size());
  return 0;
}

extern "C" BMCREDFISH_API int Redfish_GetPowerState(const char* user, const char* password,
                                                    const char* host, unsigned int timeoutMs,
                                                    bool* isOn) {
  std::string state;
  const int result =
      ReadText(user, password, host, timeoutMs, &BmcRedfishConnection::GetSystemPowerState, state);
  if (result != 0) return result;
  Service::LogInternal(redfish::LibraryLogger(), 5, "PowerOn State: %1", state);
  if (isOn != nullptr) *isOn = state == "On";
  return 0;
}

namespace {

// Also the MAC guard of a power operation, which calls it directly, not
// through the exported name a host could interpose.
int GetMacAddress(const char* user, const char* password, const char* host, const char* mac,
                  unsigned int timeoutMs, char* buffer, unsigned int* length) {
  std::shared_ptr<BmcRedfishConnection> connection;
  int result = Connect(user, password, host, connection);
  if (result != 0) return result;
  Service::Logger* logger = redfish::LibraryLogger();
  const milliseconds timeout(timeoutMs);

  // With a MAC every manager is searched; without one, only the first.
  const int lastManager = mac != nullptr ? 255 : 0;
  std::string text;  // kept across managers: an empty manager ends with the last MAC read
  bool found = false;
  for (int m = 0; m <= lastManager && !found; ++m) {
    uint8_t count = 0;
    result = connection->GetManagerEthernetNicCount(static_cast<uint8_t>(m), count, timeout);
    if (result != 0) {
      if (result == redfish::RedfishStatusNoMember && mac != nullptr) {
        Service::LogInternal(logger, 3, "No NIC found with MAC addr: %1", mac);
      }
      return result;
    }
    if (count == 0) {
      found = true;
      break;
    }
    for (int i = 0; i < count; ++i) {
      result = connection->GetManagerEthernetMac(text, timeout, static_cast<uint8_t>(m),
                                                 static_cast<uint8_t>(i));
      if (result == redfish::RedfishStatusNoMember) break;
      if (result != 0) return result;
      if (mac != nullptr ? text == mac : i + 1 >= count) {
        found = true;
        break;
      }
    }
  }
  if (!found && mac != nullptr) {
    // Every addressable manager was searched without a match.
    Service::LogInternal(logger, 3, "No NIC found with MAC addr: %1", mac);
    return redfish::RedfishStatusNoMember;
  }

  Service::LogInternal(logger, 5, "BMC MAC: %1", text);
  if (length != nullptr) {
    const unsigned int needed = static_cast<unsigned int>(text.size() + 1);
    const unsigned int n = *length < needed ? *length : needed;
    *length = n;
    if (buffer != nullptr) std::snprintf(buffer, n, "%s", text.c_str());
  }
  return 0;
}

}  // namespace

extern "C" BMCREDFISH_API int Redfish_GetMacAddress(const char* user, const char* password,
                                                    const char* host, const char* mac,
                                                    unsigned int timeoutMs, char* buffer,
                                                    unsigned int* length) {
  return GetMacAddress(user, password, host, mac, timeoutMs, buffer, length);
}

extern "C" BMCREDFISH_API int Redfish_PowerOperation(const char* user, const char* password,
                                                     const char* host, const char* mac,
                                                     REDFISHCMD command, unsigned int timeoutMs) {
  int result = redfish::Initialize();
  if (result != 0) return result;
  // No MAC, no power operation: the MAC is what proves this is the right machine.
  if (mac == nullptr) return redfish::RedfishStatusMacMismatch;

  char buffer[32] = {};
  unsigned int size = sizeof buffer;
  result = GetMacAddress(user, password, host, mac, timeoutMs, buffer, &size);
  if (result != 0) return result;
  // A manager without interfaces ends the search as a success with no MAC at
  // all; that proves nothing, even to a caller who named an empty MAC.
  if (buffer[0] == '\0' || std::strncmp(mac, buffer, size) != 0) {
    Service::LogInternal(redfish::LibraryLogger(), 3, "Invalid MAC address (%1). Expected (%2)",
                         mac, buffer);
    return redfish::RedfishStatusMacMismatch;
  }
  std::shared_ptr<BmcRedfishConnection> connection;
  result = GetOrCreateConnection(user, password, host, connection);
  if (result != 0) return result;
  return connection->PowerOperation(command, milliseconds(timeoutMs), 0);
}
