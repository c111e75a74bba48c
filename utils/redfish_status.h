#pragma once

#include <cstdint>

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

}  // namespace redfish
