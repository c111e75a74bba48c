#pragma once

// A scripted stand-in for the kernel sysinfo calls, linked into unit tests.

#include <array>
#include <cstdint>

namespace fake_sysinfo {

struct Script {
  int checkSig = 0;   // ZIRN_CheckSig's result
  int getStatus = 0;  // ZIRN_Get's status
  std::array<uint8_t, 30> record{};
  int getCalls = 0;  // how often ZIRN_Get ran
};

Script& Current();
// A record with the IPv4 flag set and the given octets.
void SetIpv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint32_t discoveryType = 1);

}  // namespace fake_sysinfo
