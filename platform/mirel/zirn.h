#pragma once

#include <cstdint>

// Kernel sysinfo nodes. On Linux the nodes are read from the firmware tables
// the kernel exports under /sys/firmware.
enum ZIRN_Node : uint16_t {
  // The Redfish host-interface record: 30 bytes, see ZIRN_RedfishInfo.
  ZIRN_NODE_hardware_bios_redfishInfo = 0x2a01,
};

// Layout of ZIRN_NODE_hardware_bios_redfishInfo (little-endian integers).
//   0  uint32  Redfish service IP discovery type (SMBIOS type 42 meaning)
//   4  uint8   non-zero when bytes 5..8 hold an IPv4 address
//   5  4 bytes Redfish service IPv4 address, most significant octet first
//   9  uint16  Redfish service port
//  11  uint32  Redfish service VLAN id
//  15  15 bytes reserved, zero
constexpr int ZIRN_REDFISH_INFO_SIZE = 30;

struct ZIRN_ParamList;

// Kernel statuses returned by ZIRN_Get.
enum NUC_ReturnStatus : int {
  NUC_OK = 0,
  NUC_ERR_BAD_PARAM = 1,      // unknown node, null buffer or a buffer too small
  NUC_ERR_NO_TABLE = 2,       // the SMBIOS table could not be read
  NUC_ERR_NO_ENTRY = 3,       // the table holds no Redfish-over-IP host interface
  NUC_ERR_CORRUPT_TABLE = 4,  // a structure runs past the table or is malformed
};

// Compares the interface definitions the library was built against with the
// running kernel's. Writes the kernel's build date (NUL-terminated, cut to
// size) into buffer, points *myBuildDate at the library's, returns 0 on a match.
int ZIRN_CheckSig(char* buffer, int size, const char** myBuildDate);

// Reads a node into buffer (zero-filled past the record). Returns a NUC status.
int ZIRN_Get(uint16_t node, const ZIRN_ParamList* params, void* buffer, int size);

const char* NUC_ReturnStatusToString(int status);
