// The exported queries and the power operation. Each checks its arguments,
// gets the host's connection from the registry and makes one call into
// resources/, keeping the account of why it failed for Redfish_GetLastFailure.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "api/connection_registry.h"
#include "bmcredfish.h"
#include "resources/any_resource.h"
#include "resources/chassis.h"
#include "resources/event_log.h"
#include "resources/health.h"
#include "resources/inventory.h"
#include "resources/mac_guard.h"
#include "resources/read_context.h"
#include "resources/sensor_readings.h"
#include "resources/system_states.h"
#include "resources/systems.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

using redfish::Inventory;
using std::chrono::milliseconds;

namespace {

// Refuses a call whose arguments cannot be served, before anything is sent.
int Refuse(int result, const char* why) {
  redfish::NoteFailure(REDFISH_LINK_GUARD, result, why);
  return result;
}

// The switch, the caller's arguments (check returns 0 or the refusal), the
// host's connection, then operation on its inventory. The caller's reference
// keeps the connection alive while it is used.
template <typename Check, typename Operation>
int Call(const char* user, const char* password, const char* host, Check check,
         Operation operation) {
  const Tessel::Service::LogBatch traces;  // one write for the call's traces
  redfish::BeginCall();
  int result = redfish::Initialize();
  if (result == 0) result = check();
  std::shared_ptr<redfish::BmcRedfishConnection> connection;
  if (result == 0) result = redfish::GetOrCreateConnection(user, password, host, connection);
  if (result == 0) result = operation(redfish::InventoryOf(*connection));
  return redfish::FinishCall(result);
}

int NoCheck() { return 0; }

// The MAC search of Redfish_GetMacAddress and its output: n = min(*length,
// MAC length + 1) bytes with the NUL, and *length = n.
int MacToBuffer(Inventory& inventory, const char* mac, unsigned int timeoutMs, char* buffer,
                unsigned int* length) {
  std::string text;
  const int result = redfish::FindBmcMac(inventory, mac, milliseconds(timeoutMs), text);
  if (result != 0 || length == nullptr) return result;
  const auto needed = static_cast<unsigned int>(text.size() + 1);
  const unsigned int n = *length < needed ? *length : needed;
  *length = n;
  if (buffer != nullptr) std::snprintf(buffer, n, "%s", text.c_str());
  return 0;
}

// A text the caller frees with Redfish_FreeText.
char* CopyForCaller(const std::string& text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// The body of a query whose result is a library-allocated text.
template <typename Read>
int TextCall(const char* user, const char* password, const char* host, char** out, Read read) {
  if (out != nullptr) *out = nullptr;
  auto check = [&] {
    return out != nullptr ? 0 : Refuse(REDFISH_ERR_INVALID_ARGUMENT, "no place for the result");
  };
  return Call(user, password, host, check, [&](Inventory& inventory) {
    std::string text;
    const int result = read(inventory, text);
    if (result == 0) *out = CopyForCaller(text);
    return result;
  });
}

// The whole-read budget of a 1.1 read.
milliseconds WholeRead(unsigned int timeoutMs) {
  constexpr unsigned int kDefaultWholeReadMs = 10000;
  return milliseconds(timeoutMs != 0 ? timeoutMs : kDefaultWholeReadMs);
}

// A text query that reads the BMC within one whole-read budget.
template <typename Read>
int WholeReadCall(const char* user, const char* password, const char* host, unsigned int timeoutMs,
                  char** out, Read read) {
  return TextCall(user, password, host, out, [&](Inventory& inventory, std::string& text) {
    redfish::ReadContext context(inventory, WholeRead(timeoutMs));
    return read(context, text);
  });
}

}  // namespace

extern "C" BMCREDFISH_API int Redfish_GetSensorsInfo(const char* user, const char* password,
                                                     const char* host, unsigned int timeoutMs,
                                                     char* buffer, unsigned int* length) {
  return Call(user, password, host, NoCheck, [&](Inventory& inventory) {
    std::string info;
    const int result = redfish::ReadSensorInfo(inventory, info, milliseconds(timeoutMs), 0);
    if (result != 0) return result;
    TESSEL_LOG(redfish::LibraryLogger(), 5, "Sensors Info '%1'", info);
    if (buffer != nullptr && length != nullptr) std::snprintf(buffer, *length, "%s", info.c_str());
    // The full length without the NUL, so a caller can size its buffer.
    if (length != nullptr) *length = static_cast<unsigned int>(info.size());
    return 0;
  });
}

extern "C" BMCREDFISH_API int Redfish_GetPowerState(const char* user, const char* password,
                                                    const char* host, unsigned int timeoutMs,
                                                    bool* isOn) {
  return Call(user, password, host, NoCheck, [&](Inventory& inventory) {
    std::string state;
    const int result = redfish::ReadPowerState(inventory, state, milliseconds(timeoutMs), 0);
    if (result != 0) return result;
    TESSEL_LOG(redfish::LibraryLogger(), 5, "PowerOn State: %1", state);
    if (isOn != nullptr) *isOn = state == "On";
    return 0;
  });
}

extern "C" BMCREDFISH_API int Redfish_GetMacAddress(const char* user, const char* password,
                                                    const char* host, const char* mac,
                                                    unsigned int timeoutMs, char* buffer,
                                                    unsigned int* length) {
  return Call(user, password, host, NoCheck, [&](Inventory& inventory) {
    return MacToBuffer(inventory, mac, timeoutMs, buffer, length);
  });
}

// The MAC is proven first, through the same steps as Redfish_GetMacAddress
// (its own registry lookup included); the command then goes through the
// connection a second lookup returns, which is a new one if the host was
// closed meanwhile.
extern "C" BMCREDFISH_API int Redfish_PowerOperation(const char* user, const char* password,
                                                     const char* host, const char* mac,
                                                     REDFISHCMD command, unsigned int timeoutMs) {
  auto check = [&] {
    // No MAC, no power operation: the MAC is what proves this is the right machine.
    return mac != nullptr ? 0 : Refuse(REDFISH_ERR_MAC_MISMATCH, "no MAC address was named");
  };
  const Tessel::Service::LogBatch traces;
  redfish::BeginCall();
  int result = redfish::Initialize();
  if (result == 0) result = check();
  char reported[32] = {};
  unsigned int size = sizeof reported;
  std::shared_ptr<redfish::BmcRedfishConnection> connection;
  if (result == 0) result = redfish::GetOrCreateConnection(user, password, host, connection);
  if (result == 0) {
    result = MacToBuffer(redfish::InventoryOf(*connection), mac, timeoutMs, reported, &size);
  }
  connection.reset();
  // A manager without interfaces ends the search as a success with no MAC at
  // all: that proves nothing, even to a caller who named an empty MAC.
  if (result == 0 && (reported[0] == '\0' || std::strncmp(mac, reported, size) != 0)) {
    TESSEL_LOG(redfish::LibraryLogger(), 3, "Invalid MAC address (%1). Expected (%2)", mac,
               reported);
    redfish::NoteFailure(
        REDFISH_LINK_GUARD, REDFISH_ERR_MAC_MISMATCH,
        std::string("the BMC reports the MAC address '") + reported + "', not '" + mac + "'");
    result = REDFISH_ERR_MAC_MISMATCH;
  }
  if (result == 0) result = redfish::GetOrCreateConnection(user, password, host, connection);
  if (result == 0) {
    result = redfish::SendPowerCommand(redfish::InventoryOf(*connection), command,
                                       milliseconds(timeoutMs), 0);
  }
  return redfish::FinishCall(result);
}

extern "C" BMCREDFISH_API int Redfish_GetLastFailure(RedfishFailure* failure) {
  return redfish::CopyLastFailure(failure);
}

extern "C" BMCREDFISH_API void Redfish_FreeText(char* text) { std::free(text); }

extern "C" BMCREDFISH_API int Redfish_GetAllowedCommands(const char* user, const char* password,
                                                         const char* host, unsigned int timeoutMs,
                                                         unsigned int* commands) {
  auto check = [&] {
    return commands != nullptr ? 0
                               : Refuse(REDFISH_ERR_INVALID_ARGUMENT, "no place for the result");
  };
  return Call(user, password, host, check, [&](Inventory& inventory) {
    return redfish::AllowedCommands(inventory, milliseconds(timeoutMs), 0, *commands);
  });
}

extern "C" BMCREDFISH_API int Redfish_GetResource(const char* user, const char* password,
                                                  const char* host, const char* path,
                                                  unsigned int timeoutMs, char** json) {
  if (path == nullptr) path = "";
  return TextCall(user, password, host, json, [&](Inventory& inventory, std::string& text) {
    return redfish::ReadResource(inventory, path, milliseconds(timeoutMs), text);
  });
}

extern "C" BMCREDFISH_API const char* Redfish_GetVersion(void) { return BMCREDFISH_VERSION_STRING; }

// The whole reads: one budget of time and members for all that each asks.
extern "C" BMCREDFISH_API int Redfish_GetHealth(const char* user, const char* password,
                                                const char* host, unsigned int timeoutMs,
                                                const char* previous, const char* readings,
                                                char** json) {
  return WholeReadCall(user, password, host, timeoutMs, json,
                       [&](redfish::ReadContext& read, std::string& text) {
                         return redfish::ReadHealth(read, previous, readings, text);
                       });
}

extern "C" BMCREDFISH_API int Redfish_GetLogEntries(const char* user, const char* password,
                                                    const char* host, unsigned int timeoutMs,
                                                    const char* cursor, char** json) {
  return WholeReadCall(user, password, host, timeoutMs, json,
                       [&](redfish::ReadContext& read, std::string& text) {
                         return redfish::ReadLogEntries(read, cursor, text);
                       });
}

extern "C" BMCREDFISH_API int Redfish_GetSensorReadings(const char* user, const char* password,
                                                        const char* host, unsigned int timeoutMs,
                                                        char** json) {
  return WholeReadCall(user, password, host, timeoutMs, json, redfish::ReadSensorReadings);
}

extern "C" BMCREDFISH_API int Redfish_GetSystems(const char* user, const char* password,
                                                 const char* host, unsigned int timeoutMs,
                                                 char** json) {
  return WholeReadCall(user, password, host, timeoutMs, json, redfish::ReadSystemStates);
}
