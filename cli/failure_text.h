#pragma once

#include <string>

#include "bmcredfish.h"

// Explanations of a failed library call, built from the library's failure
// record (never from its log): where it broke, who said what, what to check.

// The calling thread's record of its last library call, or one holding only
// code when the record is of another call.
RedfishFailure LastFailure(int code);

// The link's label ("proxy", "bmc", ...).
const char* LinkLabel(RedfishLink link);

// Where and what: "GET /bmc/redfish/v1/Managers answered 503: the BMC: ...".
std::string FailureCause(const RedfishFailure& failure);

// What an operator should check or do next; host is --host ("" for this
// host's own BMC), command the redfishctl command that failed.
std::string FailureCheck(const RedfishFailure& failure, const std::string& host,
                         const std::string& command);

// text as the inside of a JSON string.
std::string JsonEscape(const std::string& text);

// The record as JSON members, without braces:
// "result":503,"link":"bmc","httpStatus":503,"method":"GET","uri":"...","detail":"..."
std::string FailureJson(const RedfishFailure& failure);
