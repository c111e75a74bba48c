#include "platform/tessel/system.h"

#include <ctime>

namespace Tessel::System {

int64_t GetMonotonicTime() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

}  // namespace Tessel::System
