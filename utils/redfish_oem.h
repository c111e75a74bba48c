#pragma once

#include <cstdint>

namespace redfish {

// The BMC vendors whose behaviour the library knows.
enum RedfishOem : uint8_t {
  RedfishOemDell = 0,
  RedfishOemHPE = 1,
  RedfishOemLenovo = 2,
};

}  // namespace redfish
