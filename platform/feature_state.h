#pragma once

#include <cstdint>

#include "platform/export.h"

// The host's named on/off switches. A hosting process enables this library with
//   FeatureState_Init(); *GetFeatureState_Slow("REDFISH") = 1;
extern "C" {

// Builds the switch table once; safe to call repeatedly and from many threads.
BMCREDFISH_EXPORT void FeatureState_Init(void);

// The one-byte state of a named switch (non-zero = on), or null for an unknown
// name or before FeatureState_Init.
BMCREDFISH_EXPORT uint8_t* GetFeatureState_Slow(const char* name);
}
