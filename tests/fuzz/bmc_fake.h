#pragma once

// A BMC behind the fake HTTP client whose documents a fuzz input replaces.
// An input is a run of records: slot (1 byte), status (1), flags (1), body
// length (2, little-endian), body. A document without a record is the
// healthy default.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fakes/fake_http.h"

namespace bmc_fake {

enum Slot : uint8_t {
  kSystems,
  kManufacturer,
  kActions,
  kActionInfo,
  kPowerState,
  kManagers,
  kNics,
  kMac,
  kChassis,
  kSensorsProbe,
  kSensors,
  kResetAnswer,
  kSlotCount
};

// flags
constexpr uint8_t kNoContentLength = 1;
constexpr uint8_t kJunkContentLength = 2;
constexpr uint8_t kTransportFailure = 4;

struct Document {
  int status = 200;
  uint8_t flags = 0;
  std::string body;
};

class Bmc {
 public:
  Bmc();
  void Load(const uint8_t* data, size_t size);
  fake_http::Reply Answer(const fake_http::Request& request) const;
  static Slot SlotOf(const fake_http::Request& request);

 private:
  std::array<Document, kSlotCount> documents_;
};

}  // namespace bmc_fake
