#include "api/connection_registry.h"

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>

#include "bmcredfish.h"
#include "platform/feature_state.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

namespace {

constexpr char kLocalHostKey[] = "localhost";
constexpr int kLoggerLevel = 6;

using Connections = std::unordered_map<std::string, std::shared_ptr<BmcRedfishConnection>>;

std::mutex gLoggerMutex;
Tessel::Ref<Service::Logger> gRedfishLogger;
std::atomic<Service::Logger*> gLoggerPtr{nullptr};

std::mutex gConnectionsMutex;
Connections gConnections;

std::string HostKey(const char* host) { return host ? std::string(host) : kLocalHostKey; }

}  // namespace

Service::Logger* LibraryLogger() { return gLoggerPtr.load(std::memory_order_acquire); }

int Initialize() {
  FeatureState_Init();
  const uint8_t* enabled = GetFeatureState_Slow("REDFISH");
  if (enabled == nullptr || *enabled == 0) return RedfishStatusFeatureDisabled;
  if (gLoggerPtr.load(std::memory_order_acquire) != nullptr) return RedfishStatusOk;
  // Created once: connections keep a plain pointer to it.
  std::lock_guard<std::mutex> lock(gLoggerMutex);
  if (!gRedfishLogger) {
    gRedfishLogger = Service::CreateLogger("Redfish");
    gRedfishLogger->SetLevel(kLoggerLevel);
    gLoggerPtr.store(gRedfishLogger.Get(), std::memory_order_release);
  }
  return RedfishStatusOk;
}

int GetOrCreateConnection(const char* user, const char* password, const char* host,
                          std::shared_ptr<BmcRedfishConnection>& connection) {
  std::lock_guard<std::mutex> lock(gConnectionsMutex);
  Service::Logger* logger = LibraryLogger();
  const std::string key = HostKey(host);
  auto found = gConnections.find(key);
  if (found != gConnections.end()) {
    Service::LogInternal(logger, 5, "Using EXISTING Redfish Connection for '%1'", key);
    connection = found->second;
    return RedfishStatusOk;
  }
  Service::LogInternal(logger, 5, "Creating new Redfish Connection for '%1'", key);
  // The host's own BMC is reached by its SMBIOS address: an empty host says so.
  const std::string connectionHost = key == kLocalHostKey ? std::string() : key;
  const std::string userText(user);
  const std::string passwordText(password);
  try {
    auto created = std::make_shared<BmcRedfishConnection>(connectionHost, userText, passwordText,
                                                          Tessel::Ref<Service::Logger>(logger));
    gConnections[key] = created;
    connection = std::move(created);
    return RedfishStatusOk;
  } catch (int code) {
    // Only int failures are reported here; the credential failure, thrown as a
    // status value, reaches the caller as an exception.
    Service::LogInternal(logger, 3, "Failed to create Redfish Connection for %1: %2",
                         key.empty() ? std::string("BMC from Korva host") : key, code);
    return code;
  }
}

void CloseConnection(const char* host) {
  std::shared_ptr<BmcRedfishConnection> dropped;
  {
    std::lock_guard<std::mutex> lock(gConnectionsMutex);
    auto found = gConnections.find(HostKey(host));
    if (found == gConnections.end()) return;
    dropped = std::move(found->second);
    gConnections.erase(found);
  }
  // Destroyed here only if no call holds it, and outside the registry lock so
  // that other hosts' first calls need not wait for it.
}

void CleanupAll() {
  Connections dropped;
  {
    std::lock_guard<std::mutex> lock(gConnectionsMutex);
    dropped.swap(gConnections);
  }
}

namespace {
// Closes every connection when the library is unloaded or the process exits.
// Defined after the registry, so it is destroyed, and cleans up, before it.
struct Finaliser {
  ~Finaliser() {
    CleanupAll();
    ReleaseBmcHttpConnection();
  }
} gFinaliser;
}  // namespace

}  // namespace redfish

extern "C" BMCREDFISH_API int Redfish_Initialize(void) { return redfish::Initialize(); }

extern "C" BMCREDFISH_API void Redfish_CloseConnection(const char* host) {
  redfish::CloseConnection(host);
}

extern "C" BMCREDFISH_API void cleanup(void) { redfish::CleanupAll(); }
