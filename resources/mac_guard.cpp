#include "resources/mac_guard.h"

#include "resources/inventory.h"
#include "resources/managers.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

namespace {

int NoMatch(const Inventory& inventory, const char* mac) {
  TESSEL_LOG(inventory.Logger(), 3, "No NIC found with MAC addr: %1", mac);
  NoteFailure(REDFISH_LINK_DISCOVERY, RedfishStatusNoMember,
              std::string("no BMC interface has the MAC address ") + mac);
  return RedfishStatusNoMember;
}

}  // namespace

int FindBmcMac(Inventory& inventory, const char* mac, milliseconds timeout, std::string& text) {
  // With a MAC every manager is searched; without one, only the first.
  const int lastManager = mac != nullptr ? 255 : 0;
  // Kept across managers as designed: an empty manager ends the search as a
  // success with the last MAC read so far.
  std::string read;
  bool found = false;
  for (int m = 0; m <= lastManager && !found; ++m) {
    uint8_t count = 0;
    int result = NicCount(inventory, static_cast<uint8_t>(m), count, timeout);
    if (result == RedfishStatusNoMember && mac != nullptr) return NoMatch(inventory, mac);
    if (result != RedfishStatusOk) return result;
    if (count == 0) {
      found = true;
      break;
    }
    for (int i = 0; i < count; ++i) {
      result = ReadMac(inventory, read, timeout, static_cast<uint8_t>(m), static_cast<uint8_t>(i));
      if (result == RedfishStatusNoMember) break;
      if (result != RedfishStatusOk) return result;
      if (mac != nullptr ? read == mac : i + 1 >= count) {
        found = true;
        break;
      }
    }
  }
  // Every addressable manager searched without a match.
  if (!found && mac != nullptr) return NoMatch(inventory, mac);
  TESSEL_LOG(inventory.Logger(), 5, "BMC MAC: %1", read);
  text = read;
  return RedfishStatusOk;
}

}  // namespace redfish
