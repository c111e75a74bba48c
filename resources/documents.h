#pragma once

// Pure readers of the BMC's documents: each takes a parsed document and fills
// a record, or returns the result code that says why it cannot. They send
// nothing and log nothing, so tables of canned documents test them whole.

#include <rapidjson/document.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "bmcredfish.h"

namespace redfish {

// The "@odata.id" of each entry of a collection's "Members", in order; 20004
// when "Members" is not an array or an entry is not an object with a string
// "@odata.id" (ids holds the entries before it).
int MemberIds(const rapidjson::Value& collection, std::vector<std::string>& ids);

// A system's "Manufacturer": 20004 when the document is not an object, 2 when
// it has no string "Manufacturer".
int ManufacturerOf(const rapidjson::Value& system, std::string& manufacturer);

// Where a system's reset is posted, and where its ActionInfo lists the
// allowable reset types when the system itself does not.
struct ResetAction {
  std::string target;
  std::string actionInfo;  // empty when the reset action names none as a string
};
// 20004 when the system has no "#ComputerSystem.Reset" action with a string
// "target".
int ResetActionOf(const rapidjson::Value& system, ResetAction& action);

// The allowable reset types found at pointer (RFC 6901) in document: 20001
// when the pointer does not resolve.
int AllowableValuesAt(const rapidjson::Value& document, const char* pointer,
                      const rapidjson::Value*& values);

// Adds each allowable value that names a command to commands (a name the
// library does not know is skipped) and every value to seen, in order.
// 20004 when values is not an array or holds a non-string; what came before
// stays added.
int CommandsOf(const rapidjson::Value& values,
               std::unordered_map<std::string, REDFISHCMD>& commands,
               std::vector<std::string>& seen);

// A system's "PowerState", or an interface's "MACAddress", as the BMC wrote
// it: 20004 when the document is not an object with that string member.
int PowerStateOf(const rapidjson::Value& system, std::string& state);
int MacAddressOf(const rapidjson::Value& interface, std::string& mac);

}  // namespace redfish
