#pragma once

#include <rapidjson/document.h>

#include <string>

#include "platform/export.h"
#include "platform/tessel/logging.h"
#include "utils/redfish_oem.h"

namespace redfish {

// Every response body is parsed here: up to its first NUL, strict JSON, one
// root value. Check HasParseError() before reading the document.
void ParseJson(rapidjson::Document& document, const std::string& text);

// The first member of that name, or null (also when value is not an object).
const rapidjson::Value* JsonMember(const rapidjson::Value& value, const char* name);

// The string member of that name; false when absent or not a string.
bool JsonString(const rapidjson::Value& value, const char* name, std::string& out);

// 0 when index is below size; otherwise logs "Unsupported <kind> Index <index>"
// at level 3 and returns 40001.
int CheckIndex(Tessel::Service::Logger* logger, const char* kind, size_t index, size_t size);

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
