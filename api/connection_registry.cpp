#include "api/connection_registry.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "bmcredfish.h"
#include "platform/feature_state.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

namespace {

constexpr char kLocalHostKey[] = "localhost";
constexpr int kLoggerLevel = 6;

using Connections = std::unordered_map<std::string, std::shared_ptr<BmcRedfishConnection>>;

// Lookups share the lock; creating a connection holds it alone, for the whole
// creation, so first calls wait for one another. A failed creation registers
// nothing: each caller that finds no connection tries to create it itself.
struct Registry {
  std::shared_mutex mutex;
  Connections connections;
  Registry* forkedFrom = nullptr;
};

std::mutex gLoggerMutex;
Tessel::Ref<Service::Logger> gRedfishLogger;
std::atomic<Service::Logger*> gLoggerPtr{nullptr};

Registry* gRegistry = new Registry();

std::string HostKey(const char* host) { return host ? std::string(host) : kLocalHostKey; }

int CreationFailed(const std::string& key, int code) {
  // Only int failures are reported here; the credential failure, thrown as a
  // status value, reaches the caller as an exception.
  TESSEL_LOG(LibraryLogger(), 3, "Failed to create Redfish Connection for %1: %2",
             key.empty() ? std::string("BMC from Korva host") : key, code);
  return code;
}

// In a forked child only the forking thread exists: a lock another thread
// held at fork() would stay locked for ever, and the parent's connections
// share its sockets. The child starts with an empty registry and a fresh
// logger lock; the parent's registry is left untouched (and reachable).
void ChildAfterFork() {
  gRegistry = new Registry{{}, {}, gRegistry};
  ::new (static_cast<void*>(&gLoggerMutex)) std::mutex();
}

struct ForkHandler {
  ForkHandler() { pthread_atfork(nullptr, nullptr, &ChildAfterFork); }
} gForkHandler;

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
  Registry& registry = *gRegistry;
  Service::Logger* logger = LibraryLogger();
  const std::string key = HostKey(host);
  {
    std::shared_lock<std::shared_mutex> lock(registry.mutex);
    auto found = registry.connections.find(key);
    if (found != registry.connections.end()) connection = found->second;
  }
  if (connection) {
    TESSEL_LOG(logger, 5, "Using EXISTING Redfish Connection for '%1'", key);
    return RedfishStatusOk;
  }
  std::unique_lock<std::shared_mutex> lock(registry.mutex);
  auto found = registry.connections.find(key);
  if (found != registry.connections.end()) {
    connection = found->second;
    lock.unlock();
    TESSEL_LOG(logger, 5, "Using EXISTING Redfish Connection for '%1'", key);
    return RedfishStatusOk;
  }
  TESSEL_LOG(logger, 5, "Creating new Redfish Connection for '%1'", key);
  // The host's own BMC is reached by its SMBIOS address: an empty host says so.
  const std::string connectionHost = key == kLocalHostKey ? std::string() : key;
  const std::string userText(user);
  const std::string passwordText(password);
  try {
    auto created = std::make_shared<BmcRedfishConnection>(connectionHost, userText, passwordText,
                                                          Tessel::Ref<Service::Logger>(logger));
    registry.connections[key] = created;
    connection = std::move(created);
    return RedfishStatusOk;
  } catch (int code) {
    return CreationFailed(key, code);
  }
}

void CloseConnection(const char* host) {
  std::shared_ptr<BmcRedfishConnection> dropped;
  {
    Registry& registry = *gRegistry;
    std::lock_guard<std::shared_mutex> lock(registry.mutex);
    auto found = registry.connections.find(HostKey(host));
    if (found == registry.connections.end()) return;
    dropped = std::move(found->second);
    registry.connections.erase(found);
  }
  // Destroyed here only if no call holds it, and outside the registry lock so
  // that other hosts' first calls need not wait for it.
}

void CleanupAll() {
  Connections dropped;
  Registry& registry = *gRegistry;
  std::lock_guard<std::shared_mutex> lock(registry.mutex);
  dropped.swap(registry.connections);
}

namespace {
// Closes every connection when the library is unloaded or the process exits.
// Defined after the registry, so it is destroyed, and cleans up, before it.
struct Finaliser {
  ~Finaliser() {
    CleanupAll();
    ReleaseBmcHttpConnection();
    // A forked child's abandoned registries stay: their locks may be held.
    if (gRegistry->forkedFrom == nullptr) {
      delete gRegistry;
      gRegistry = nullptr;
    }
  }
} gFinaliser;
}  // namespace

}  // namespace redfish

extern "C" BMCREDFISH_API int Redfish_Initialize(void) { return redfish::Initialize(); }

extern "C" BMCREDFISH_API void Redfish_CloseConnection(const char* host) {
  redfish::CloseConnection(host);
}

extern "C" BMCREDFISH_API void cleanup(void) { redfish::CleanupAll(); }
