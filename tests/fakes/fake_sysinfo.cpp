#include "tests/fakes/fake_sysinfo.h"

#include <cstring>

#include "platform/mirel/zirn.h"

namespace fake_sysinfo {

Script& Current() {
  static Script script;
  return script;
}

void SetIpv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint32_t discoveryType) {
  Script& s = Current();
  s.record.fill(0);
  std::memcpy(s.record.data(), &discoveryType, sizeof discoveryType);
  s.record[4] = 1;
  s.record[5] = a;
  s.record[6] = b;
  s.record[7] = c;
  s.record[8] = d;
}

}  // namespace fake_sysinfo

int ZIRN_CheckSig(char* buffer, int size, const char** myBuildDate) {
  static const char kMine[] = "Nov 01 2026";
  // A full buffer without a terminator, as a mismatching kernel may leave it.
  if (buffer && size > 0) std::memset(buffer, 'K', static_cast<size_t>(size));
  if (myBuildDate) *myBuildDate = kMine;
  return fake_sysinfo::Current().checkSig;
}

int ZIRN_Get(uint16_t, const ZIRN_ParamList*, void* buffer, int size) {
  auto& s = fake_sysinfo::Current();
  ++s.getCalls;
  if (s.getStatus != 0) return s.getStatus;
  std::memcpy(buffer, s.record.data(),
              std::min<size_t>(static_cast<size_t>(size), s.record.size()));
  return 0;
}

const char* NUC_ReturnStatusToString(int status) {
  return status == 0 ? "ok" : "scripted sysinfo failure";
}
