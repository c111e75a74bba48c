#pragma once

#include "platform/tessel/logging.h"

namespace redfish {

// True when a message of that level would be written: callers test this
// before building a costly message. No logger writes nothing.
inline bool LogsAt(const Tessel::Service::Logger* logger, int level) {
  return logger != nullptr && logger->GetLevel() >= level;
}

}  // namespace redfish
