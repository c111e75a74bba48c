#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/mirel/zirn.h"
#include "transport/bmc_http_connection.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {
constexpr int kSigBufferSize = 21;
constexpr int kRecordSize = 30;
}  // namespace

int BmcHttpConnection::BmcIpFromSmbios(std::string& ip) {
  char kernelBuildDate[kSigBufferSize] = {};
  const char* myBuildDate = nullptr;
  if (ZIRN_CheckSig(kernelBuildDate, kSigBufferSize, &myBuildDate) != 0) {
    kernelBuildDate[kSigBufferSize - 1] = '\0';
    TESSEL_LOG(_logger, 3,
               "MD5 signature mismatch with running nucleus built on %1 (my build date: %2)\n",
               kernelBuildDate, myBuildDate);
    NoteFailure(REDFISH_LINK_SMBIOS, RedfishStatusNoBmcAddress,
                "the firmware tables' interface does not match this library's");
    return RedfishStatusNoBmcAddress;
  }

  uint8_t record[kRecordSize] = {};
  const int status = ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, record, kRecordSize);
  if (status != 0) {
    TESSEL_LOG(_logger, 3, "Failed to get rfInfo zirn node: %1", NUC_ReturnStatusToString(status));
    NoteFailure(REDFISH_LINK_SMBIOS, RedfishStatusNoBmcAddress, NUC_ReturnStatusToString(status));
    return RedfishStatusNoBmcAddress;
  }

  int32_t discoveryType = 0;
  std::memcpy(&discoveryType, record, sizeof discoveryType);
  TESSEL_LOG(_logger, 5, "IP Discovery type : %1", discoveryType);
  if (record[4] == 0) {  // IPv6 is not used
    NoteFailure(REDFISH_LINK_SMBIOS, RedfishStatusNoBmcAddress,
                "the Redfish host-interface record holds no IPv4 address");
    return RedfishStatusNoBmcAddress;
  }

  char text[32] = {};
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", record[5], record[6], record[7], record[8]);
  ip = text;
  TESSEL_LOG(_logger, 5, "BMC IP4 addr: %1", ip);
  return RedfishStatusOk;
}

}  // namespace redfish
