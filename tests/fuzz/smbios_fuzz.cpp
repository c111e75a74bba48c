// libFuzzer target for the SMBIOS reader: any bytes, as a table and as an
// entry point. Traps when a result breaks the reader's promises.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/mirel/smbios.h"
#include "platform/mirel/zirn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SMBIOS_RedfishOverIp record;
  std::memset(&record, 0xA5, sizeof record);
  SMBIOS_Problem problem{nullptr, 0};
  const int status = SMBIOS_FindRedfishOverIp(data, size, &record, &problem);
  if (status == NUC_OK) {
    if (record.structureOffset >= size) __builtin_trap();
    if (std::memchr(record.hostname, 0, sizeof record.hostname) == nullptr) __builtin_trap();
    if (!record.hostnameFits && record.hostname[0] != '\0') __builtin_trap();
  } else {
    if (status != NUC_ERR_NO_TABLE && status != NUC_ERR_NO_ENTRY &&
        status != NUC_ERR_CORRUPT_TABLE) {
      __builtin_trap();
    }
    if (problem.what == nullptr || (size > 0 && problem.offset > size)) __builtin_trap();
  }
  (void)SMBIOS_TableLengthFromEntryPoint(data, size);
  return 0;
}
