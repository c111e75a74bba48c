#include "platform/mirel/zirn.h"

#include <algorithm>
#include <cstring>

#include "platform/mirel/smbios.h"
#include "platform/tessel/logging.h"

namespace {

// Linux has no kernel interface signature to compare against; the library's
// own build date stands in for both sides.
constexpr const char kBuildDate[] = __DATE__;

void PutLe16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

void PutLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

const Tessel::Service::Logger* SysinfoLogger() {
  static const Tessel::Ref<Tessel::Service::Logger> logger =
      Tessel::Service::CreateLogger("sysinfo");
  return logger.Get();
}

int GetRedfishInfo(uint8_t* out) {
  SMBIOS_RedfishOverIp record{};
  SMBIOS_Problem problem{"", 0};
  const int status =
      SMBIOS_ReadRedfishOverIp(SMBIOS_SYSFS_ENTRY_POINT, SMBIOS_SYSFS_TABLE, &record, &problem);
  if (status != NUC_OK) {
    // The status alone cannot say which byte of the firmware table is wrong.
    TESSEL_LOG(SysinfoLogger(), 2, "%1: %2 (table offset %3)", NUC_ReturnStatusToString(status),
               problem.what, problem.offset);
    return status;
  }
  PutLe32(out + 0, record.discoveryType);
  if (record.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV4) {
    out[4] = 1;
    std::memcpy(out + 5, record.address, 4);
  }
  PutLe16(out + 9, record.port);
  PutLe32(out + 11, record.vlan);
  return NUC_OK;
}

}  // namespace

int ZIRN_CheckSig(char* buffer, int size, const char** myBuildDate) {
  if (buffer != nullptr && size > 0) {
    const size_t n = std::min(sizeof kBuildDate - 1, static_cast<size_t>(size) - 1);
    std::memcpy(buffer, kBuildDate, n);
    buffer[n] = '\0';
  }
  if (myBuildDate != nullptr) *myBuildDate = kBuildDate;
  return 0;
}

int ZIRN_Get(uint16_t node, const ZIRN_ParamList* /*params*/, void* buffer, int size) {
  if (node != ZIRN_NODE_hardware_bios_redfishInfo || buffer == nullptr ||
      size < ZIRN_REDFISH_INFO_SIZE) {
    return NUC_ERR_BAD_PARAM;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  std::memset(out, 0, static_cast<size_t>(size));
  return GetRedfishInfo(out);
}

const char* NUC_ReturnStatusToString(int status) {
  switch (status) {
    case NUC_OK:
      return "success";
    case NUC_ERR_BAD_PARAM:
      return "bad parameter: unknown node, null buffer or buffer smaller than the record";
    case NUC_ERR_NO_TABLE:
      return "no SMBIOS table at /sys/firmware/dmi/tables/DMI";
    case NUC_ERR_NO_ENTRY:
      return "the SMBIOS table has no Redfish-over-IP host interface (type 42)";
    case NUC_ERR_CORRUPT_TABLE:
      return "the SMBIOS table is malformed: a structure runs past the table or its own length";
    default:
      return "unknown sysinfo status";
  }
}
