#include "transport/exchange_failure.h"

#include <exception>

#include "platform/tessel/exception.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace {
// The platform reports a connect that timed out before anything was sent as
// a system error with this number (ETIMEDOUT).
constexpr int kConnectTimedOut = 110;
}  // namespace

int ExchangeFailure(Tessel::Service::Logger* logger, const std::string& methodName,
                    const std::function<std::string()>& target, int64_t timeoutMs,
                    int64_t timeLeftUs) {
  try {
    throw;
  } catch (const Tessel::Ssl::SSLVerifyException& e) {
    TESSEL_LOG(logger, 3, "%1: Failed SSL verification of server with hostname '%2': %3",
               methodName, target(), e.what());
    NoteFailure(REDFISH_LINK_PROXY, RedfishStatusSslVerify, e.what());
    return RedfishStatusSslVerify;
  } catch (const Tessel::InvalidArgumentException& e) {
    // Deliberately the time-out wording; only the code tells them apart.
    TESSEL_LOG(logger, 3, "%1: Response from %2 timed out after %3 milliseconds: %4", methodName,
               target(), timeoutMs, e.what());
    NoteFailure(REDFISH_LINK_GUARD, RedfishStatusInvalidArgument, e.what());
    return RedfishStatusInvalidArgument;
  } catch (const Tessel::TimeoutException& e) {
    TESSEL_LOG(logger, 3, "%1: Response from %2 timed out after %3 milliseconds: %4", methodName,
               target(), timeoutMs, e.what());
    NoteFailure(REDFISH_LINK_BMC, RedfishStatusTimeout,
                Tessel::Detail::ASPrintInternal(
                    "no answer within %1 ms through the proxy (the BMC is slow or unreachable)",
                    timeoutMs));
    return RedfishStatusTimeout;
  } catch (const Tessel::SystemException& e) {
    // Only a connect that timed out before anything was sent is retried; the
    // platform never reports it once a byte of the request may have left.
    if (e.GetError() == kConnectTimedOut && timeLeftUs > 0) {
      TESSEL_LOG(logger, 5, "%1: Retrying connection to %2. Time left: %3", methodName, target(),
                 timeLeftUs);
      return RedfishStatusOk;
    }
    NoteFailure(REDFISH_LINK_PROXY, RedfishStatusSystemError, e.what());
    return RedfishStatusSystemError;
  } catch (const Tessel::Exception& e) {
    TESSEL_LOG(logger, 3, "%1: AsyncSendRequest to %2 failed : %3", methodName, target(), e.what());
    NoteFailure(REDFISH_LINK_PROXY, RedfishStatusTransportError, e.what());
    return RedfishStatusTransportError;
  }
}

}  // namespace redfish
