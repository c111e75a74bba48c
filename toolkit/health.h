#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The health document of Redfish_GetHealth, as the tools read it.
namespace toolkit {

// A system, chassis or part; its texts as the BMC gave them (not yet fit
// for printing). A cause's health is the level that named it.
struct HealthPart {
  std::string kind;  // "System", "Chassis", "Manager", "PowerSupply", ... "Sensor"
  std::string id;
  std::string name;
  std::string parent;  // the Id of what holds it, "" for none
  std::string state;
  std::string health;
  std::string healthRollup;  // systems and chassis
};

struct FirmwareItem {
  std::string kind;  // "BMC", "BIOS", "Inventory"
  std::string id;
  std::string name;
  std::string version;
};

struct Health {
  std::string health;  // the library's rollup: "OK", "Warning", "Critical", "" when nothing said
  std::vector<HealthPart> causes;
  size_t causesLeftOut = 0;
  std::vector<HealthPart> systems;
  std::vector<HealthPart> chassis;
  std::vector<HealthPart> parts;
  std::vector<FirmwareItem> firmware;
  double readAt = 0;  // Unix seconds
  double partsAt = 0;
  double firmwareAt = 0;
  size_t partsLeftOut = 0;
  size_t gaps = 0;
};

// False when json is not such a document: an object with a "Health" string,
// "Causes", "Systems", "Chassis", "Parts" and "Firmware" arrays of objects and
// a "Read" object. Within that, a text that is not a string reads as "".
bool ParseHealth(std::string_view json, Health& health);

// 0 OK, 1 Warning, 2 Critical; -1 for "" or a text Redfish does not define.
int HealthValue(const std::string& health);

}  // namespace toolkit
