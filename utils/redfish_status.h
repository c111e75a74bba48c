#pragma once

#include <cstdint>

#include "bmcredfish.h"

namespace redfish {

// The library's own statuses; they travel as int results beside HTTP statuses.
// Each is the public code of the same meaning, so the two cannot drift apart.
enum RedfishStatus : int32_t {
  RedfishStatusOk = REDFISH_OK,
  RedfishStatusFeatureDisabled = REDFISH_FEATURE_DISABLED,
  RedfishStatusUnknownVendor = REDFISH_UNKNOWN_VENDOR,
  RedfishStatusSslVerify = REDFISH_ERR_TLS_VERIFY,
  RedfishStatusInvalidArgument = REDFISH_ERR_INVALID_ARGUMENT,
  RedfishStatusTimeout = REDFISH_ERR_TIMEOUT,
  RedfishStatusSystemError = REDFISH_ERR_SYSTEM,
  RedfishStatusTransportError = REDFISH_ERR_TRANSPORT,
  RedfishStatusDocumentIncomplete = REDFISH_ERR_ROUTE_DOCUMENT,
  RedfishStatusBadJson = REDFISH_ERR_BAD_JSON,
  RedfishStatusNoMembers = REDFISH_ERR_NO_MEMBERS,
  RedfishStatusUnexpectedJson = REDFISH_ERR_UNEXPECTED_JSON,
  RedfishStatusNoBmcAddress = REDFISH_ERR_NO_BMC_ADDRESS,
  RedfishStatusNoMember = REDFISH_ERR_NO_MEMBER,
  RedfishStatusMacMismatch = REDFISH_ERR_MAC_MISMATCH,
  RedfishStatusCommandNotAllowed = REDFISH_ERR_COMMAND_NOT_ALLOWED,
  RedfishStatusCredentialsEncoding = REDFISH_ERR_CREDENTIALS_ENCODING,
  RedfishStatusUnauthorized = REDFISH_ERR_UNAUTHORIZED,
  RedfishStatusNoActionNeeded = REDFISH_ERR_NO_ACTION_NEEDED,
};
constexpr int kRedfishStatusCount = 19;

// A code added to the public table needs its status here too.
#define REDFISH_STATUS_PUBLIC_(name, value, text) name,
constexpr int kPublicResultCodes[] = {BMCREDFISH_RESULT_CODES(REDFISH_STATUS_PUBLIC_)};
#undef REDFISH_STATUS_PUBLIC_
static_assert(sizeof kPublicResultCodes / sizeof kPublicResultCodes[0] == kRedfishStatusCount,
              "every public result code has a RedfishStatus");

}  // namespace redfish
