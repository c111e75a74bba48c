#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Reading the Redfish-over-IP host interface out of raw SMBIOS tables. Pure
// parsing apart from SMBIOS_ReadRedfishOverIp; statuses are the NUC_* values
// of zirn.h. Every read is checked against the given length: any byte string
// is a valid input.

// SMBIOS type 42 constants this reader relies on.
constexpr uint8_t SMBIOS_TYPE_HOST_INTERFACE = 42;
constexpr uint8_t SMBIOS_TYPE_END_OF_TABLE = 127;
constexpr uint8_t SMBIOS_INTERFACE_KCS = 0x02;
constexpr uint8_t SMBIOS_INTERFACE_NETWORK = 0x40;
constexpr uint8_t SMBIOS_PROTOCOL_REDFISH_OVER_IP = 0x04;
constexpr uint8_t SMBIOS_ADDRESS_FORMAT_IPV4 = 1;
constexpr uint8_t SMBIOS_ADDRESS_FORMAT_IPV6 = 2;

// One decoded Redfish-over-IP protocol record and the structure holding it.
// Addresses are in network order; an IPv4 address fills the first 4 bytes.
// Multi-byte integers are converted from the table's little-endian.
struct SMBIOS_RedfishOverIp {
  uint16_t handle;          // of the type 42 structure
  size_t structureOffset;   // of the type 42 structure in the table
  uint8_t deviceType;       // first byte of the interface-specific data, 0 when absent
  uint8_t serviceUuid[16];  // as stored (first three fields little-endian)
  uint8_t hostIpAssignmentType;
  uint8_t hostIpAddressFormat;
  uint8_t hostIpAddress[16];
  uint8_t hostIpMask[16];
  uint8_t discoveryType;  // 0 unknown, 1 static, 2 DHCP, 3 auto, 4 host-selected
  uint8_t addressFormat;  // SMBIOS_ADDRESS_FORMAT_*, other values kept as found
  uint8_t address[16];
  uint8_t mask[16];
  uint16_t port;
  uint32_t vlan;
  // NUL-terminated; empty when the record has none. hostnameFits is false when
  // the announced hostname length runs past the record (the rest stays valid).
  char hostname[256];
  bool hostnameFits;
};

// Where and why parsing gave up: a fixed text and the table offset at fault.
struct SMBIOS_Problem {
  const char* what;
  size_t offset;
};

// Finds the first type 42 structure with interface type 0x40 that holds a
// Redfish-over-IP protocol record and decodes that record. Walks structures
// until the end-of-table marker or fewer than 4 bytes remain. Returns NUC_OK,
// NUC_ERR_NO_TABLE (null or empty table), NUC_ERR_NO_ENTRY (walked the whole
// table without finding one) or NUC_ERR_CORRUPT_TABLE (a structure met on the
// way runs past the table, has a length below its header, or the chosen
// structure's records do not fit it). record and problem may be null; record
// is written only on NUC_OK, problem only on failure.
int SMBIOS_FindRedfishOverIp(const uint8_t* table, size_t length, SMBIOS_RedfishOverIp* record,
                             SMBIOS_Problem* problem);

// One type 42 structure: its interface type and, for a network interface that
// holds a Redfish-over-IP record, that record decoded (hasRedfish).
struct SMBIOS_HostInterface {
  uint16_t handle;
  uint8_t interfaceType;  // 0 when the structure is too short to say
  bool hasRedfish;
  SMBIOS_RedfishOverIp redfish;
};

// Every type 42 structure in table order, for a reader that must know more
// than the first Redfish record: the first max are written to out (may be
// null) and *count receives how many were met. Returns NUC_OK (also when there
// are none), NUC_ERR_NO_TABLE, or NUC_ERR_CORRUPT_TABLE with *count covering
// the structures before the fault.
int SMBIOS_ListHostInterfaces(const uint8_t* table, size_t length, SMBIOS_HostInterface* out,
                              size_t max, size_t* count, SMBIOS_Problem* problem);

// The table length an entry point announces ("_SM3_": maximum size, "_SM_" and
// "_DMI_": exact length), or 0 when the bytes are not a well-formed entry point
// (unknown anchor, bad checksum, length field past the given bytes).
size_t SMBIOS_TableLengthFromEntryPoint(const uint8_t* entryPoint, size_t length);

// Largest table read from a file; real tables are a few KiB.
constexpr size_t SMBIOS_MAX_TABLE_BYTES = 1024 * 1024;

// Where Linux exports the firmware's tables.
constexpr const char SMBIOS_SYSFS_ENTRY_POINT[] = "/sys/firmware/dmi/tables/smbios_entry_point";
constexpr const char SMBIOS_SYSFS_TABLE[] = "/sys/firmware/dmi/tables/DMI";

// The table bytes at tablePath: at most the length entryPointPath announces
// (when that file exists and is well formed) and at most
// SMBIOS_MAX_TABLE_BYTES. False when the table file cannot be read.
bool SMBIOS_ReadTable(const char* entryPointPath, const char* tablePath,
                      std::vector<uint8_t>& bytes);

// Reads the table at tablePath (at most the length entryPointPath announces,
// when that file exists and is well formed, and at most SMBIOS_MAX_TABLE_BYTES)
// and searches it as SMBIOS_FindRedfishOverIp does. An unreadable or empty table
// file gives NUC_ERR_NO_TABLE. entryPointPath may be null.
int SMBIOS_ReadRedfishOverIp(const char* entryPointPath, const char* tablePath,
                             SMBIOS_RedfishOverIp* record, SMBIOS_Problem* problem);
