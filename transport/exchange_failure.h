#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/tessel/logging.h"

namespace redfish {

// What the Tessel exception being handled means for an exchange with the
// proxy (call it inside a catch block): its result code, after its log line
// and failure note; or 0 when the connect timed out before anything was sent
// and time is left, so the same request may be sent again. target names the
// proxy for the log lines; timeLeftUs is what remains of the exchange's
// deadline.
int ExchangeFailure(Tessel::Service::Logger* logger, const std::string& methodName,
                    const std::function<std::string()>& target, int64_t timeoutMs,
                    int64_t timeLeftUs);

}  // namespace redfish
