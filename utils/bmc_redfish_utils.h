#pragma once

#include <rapidjson/document.h>

#include <string>

#include "platform/export.h"
#include "platform/tessel/logging.h"
#include "utils/redfish_oem.h"

namespace redfish {

// Parsing and checking of Redfish response bodies. Stateless.
class BMCREDFISH_EXPORT BmcRedfishUtils {
 public:
  // Parses json into document, logs a Redfish error payload, and with
  // requireMembers insists on a "Members" array. Returns 0, 20002 (not JSON)
  // or 20003 (no "Members" array). Never throws.
  static int VerifyJson(Tessel::Service::Logger* logger, const std::string& json,
                        rapidjson::Document& document, bool requireMembers);

  // Maps a manufacturer text to its vendor by prefix; 2 when none matches.
  static int StringToRedfishOem(Tessel::Service::Logger* logger, const std::string& manufacturer,
                                RedfishOem& oem);
};

}  // namespace redfish
