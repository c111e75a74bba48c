#pragma once

#include <cstdint>

#include "bmcredfish.h"

namespace redfish {

// The library's own statuses; they travel as int results beside HTTP statuses.
enum RedfishStatus : int32_t {
  RedfishStatusOk = 0,
  RedfishStatusFeatureDisabled = 1,
  RedfishStatusUnknownVendor = 2,
  RedfishStatusSslVerify = 10001,
  RedfishStatusInvalidArgument = 10002,
  RedfishStatusTimeout = 10003,
  RedfishStatusSystemError = 10004,
  RedfishStatusTransportError = 10005,
  RedfishStatusDocumentIncomplete = 20001,
  RedfishStatusBadJson = 20002,
  RedfishStatusNoMembers = 20003,
  RedfishStatusUnexpectedJson = 20004,
  RedfishStatusNoBmcAddress = 30001,
  RedfishStatusNoMember = 40001,
  RedfishStatusMacMismatch = 40002,
  RedfishStatusCommandNotAllowed = 40003,
  RedfishStatusCredentialsEncoding = 40004,
  RedfishStatusUnauthorized = 40005,
  RedfishStatusNoActionNeeded = 40006,
};

// The public header and this enum name the same numbers.
static_assert(static_cast<int>(RedfishStatusOk) == static_cast<int>(REDFISH_OK));
static_assert(static_cast<int>(RedfishStatusFeatureDisabled) ==
              static_cast<int>(REDFISH_FEATURE_DISABLED));
static_assert(static_cast<int>(RedfishStatusUnknownVendor) ==
              static_cast<int>(REDFISH_UNKNOWN_VENDOR));
static_assert(static_cast<int>(RedfishStatusSslVerify) == static_cast<int>(REDFISH_ERR_TLS_VERIFY));
static_assert(static_cast<int>(RedfishStatusInvalidArgument) ==
              static_cast<int>(REDFISH_ERR_INVALID_ARGUMENT));
static_assert(static_cast<int>(RedfishStatusTimeout) == static_cast<int>(REDFISH_ERR_TIMEOUT));
static_assert(static_cast<int>(RedfishStatusSystemError) == static_cast<int>(REDFISH_ERR_SYSTEM));
static_assert(static_cast<int>(RedfishStatusTransportError) ==
              static_cast<int>(REDFISH_ERR_TRANSPORT));
static_assert(static_cast<int>(RedfishStatusDocumentIncomplete) ==
              static_cast<int>(REDFISH_ERR_ROUTE_DOCUMENT));
static_assert(static_cast<int>(RedfishStatusBadJson) == static_cast<int>(REDFISH_ERR_BAD_JSON));
static_assert(static_cast<int>(RedfishStatusNoMembers) == static_cast<int>(REDFISH_ERR_NO_MEMBERS));
static_assert(static_cast<int>(RedfishStatusUnexpectedJson) ==
              static_cast<int>(REDFISH_ERR_UNEXPECTED_JSON));
static_assert(static_cast<int>(RedfishStatusNoBmcAddress) ==
              static_cast<int>(REDFISH_ERR_NO_BMC_ADDRESS));
static_assert(static_cast<int>(RedfishStatusNoMember) == static_cast<int>(REDFISH_ERR_NO_MEMBER));
static_assert(static_cast<int>(RedfishStatusMacMismatch) ==
              static_cast<int>(REDFISH_ERR_MAC_MISMATCH));
static_assert(static_cast<int>(RedfishStatusCommandNotAllowed) ==
              static_cast<int>(REDFISH_ERR_COMMAND_NOT_ALLOWED));
static_assert(static_cast<int>(RedfishStatusCredentialsEncoding) ==
              static_cast<int>(REDFISH_ERR_CREDENTIALS_ENCODING));
static_assert(static_cast<int>(RedfishStatusUnauthorized) ==
              static_cast<int>(REDFISH_ERR_UNAUTHORIZED));
static_assert(static_cast<int>(RedfishStatusNoActionNeeded) ==
              static_cast<int>(REDFISH_ERR_NO_ACTION_NEEDED));

}  // namespace redfish
