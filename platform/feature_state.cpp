#include "platform/feature_state.h"

#include <atomic>
#include <cstring>
#include <thread>

namespace {

struct Switch {
  const char* name;
  uint8_t defaultState;
};

// The default table: every switch the host knows, most of them off until the
// hosting process turns them on.
constexpr Switch kDefaults[] = {
    {"REDFISH", 0},
    {"REDFISH_POWER_OPS", 0},
    {"REDFISH_SENSORS", 0},
    {"IPMI", 1},
    {"SMBIOS", 1},
    {"HOST_INTERFACE", 1},
    {"PROXY_SIDECAR", 1},
    {"HTTP2", 1},
    {"TLS13", 1},
    {"VMOTION", 1},
    {"VSAN", 0},
    {"NVME_TCP", 0},
    {"SECURE_BOOT", 1},
    {"TPM", 1},
    {"QUICK_BOOT", 0},
    {"HW_HEALTH", 1},
    {"CIM", 0},
    {"SNMP", 0},
    {"WBEM", 0},
    {"KEY_PERSISTENCE", 0},
    {"CRYPTO_FIPS", 0},
    {"DPU", 0},
    {"LIVE_PATCH", 0},
    {"MEMORY_TIERING", 0},
};
constexpr size_t kCount = sizeof kDefaults / sizeof kDefaults[0];

uint8_t gStates[kCount];
std::atomic<int> gInitState{0};  // 0 not started, 1 initialising, 2 done

}  // namespace

extern "C" void FeatureState_Init(void) {
  int expected = 0;
  if (gInitState.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
    for (size_t i = 0; i < kCount; ++i) gStates[i] = kDefaults[i].defaultState;
    gInitState.store(2, std::memory_order_release);
    return;
  }
  while (gInitState.load(std::memory_order_acquire) != 2) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
}

extern "C" uint8_t* GetFeatureState_Slow(const char* name) {
  if (name == nullptr || gInitState.load(std::memory_order_acquire) != 2) return nullptr;
  for (size_t i = 0; i < kCount; ++i) {
    if (std::strcmp(kDefaults[i].name, name) == 0) return &gStates[i];
  }
  return nullptr;
}
