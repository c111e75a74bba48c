// Placeholder bodies of the 1.1 entry points, so that their callers can be
// built while the library's side is written. Replaced before release.
#include <cstddef>
#include <cstdlib>

#include "bmcredfish.h"

extern "C" BMCREDFISH_API int Redfish_GetLastFailure(RedfishFailure* failure) {
  if (failure == nullptr || failure->size < offsetof(RedfishFailure, httpStatus)) {
    return REDFISH_ERR_INVALID_ARGUMENT;
  }
  return REDFISH_OK;
}

extern "C" BMCREDFISH_API void Redfish_FreeText(char* text) { std::free(text); }

extern "C" BMCREDFISH_API int Redfish_GetSensorReadings(const char*, const char*, const char*,
                                                        unsigned int, char** json) {
  if (json != nullptr) *json = nullptr;
  return REDFISH_ERR_TRANSPORT;
}

extern "C" BMCREDFISH_API int Redfish_GetAllowedCommands(const char*, const char*, const char*,
                                                         unsigned int, unsigned int*) {
  return REDFISH_ERR_TRANSPORT;
}

extern "C" BMCREDFISH_API int Redfish_GetResource(const char*, const char*, const char*,
                                                  const char*, unsigned int, char** json) {
  if (json != nullptr) *json = nullptr;
  return REDFISH_ERR_TRANSPORT;
}
