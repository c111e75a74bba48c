#pragma once

#include <string>
#include <string_view>
#include <vector>

// The systems document of Redfish_GetSystems, as the tools read it.
namespace toolkit {

struct System {
  std::string id;
  std::string powerState;  // as the BMC wrote it ("On", "Off", "PoweringOn", ...), "" if none
  std::string health;
};

// False when json is not an object whose "Systems" is an array of objects; a
// text that is not a string reads as "".
bool ParseSystems(std::string_view json, std::vector<System>& systems);

}  // namespace toolkit
