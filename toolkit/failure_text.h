#pragma once

#include <string>

#include "bmcredfish.h"

// A failed library call told from the library's failure record (never from
// its log): where it broke and who said what.
namespace toolkit {

// The calling thread's record of its last library call, or one holding only
// code when the record is of another call.
RedfishFailure LastFailure(int code);

// The link's label ("proxy", "bmc", ...).
const char* LinkLabel(RedfishLink link);

// Where and what: "GET /bmc/redfish/v1/Managers answered 503: the BMC: ...",
// with the texts as the record holds them (Printable before printing).
std::string FailureCause(const RedfishFailure& failure);

// The record as JSON members, without braces:
// "result":503,"link":"bmc","httpStatus":503,"method":"GET","uri":"...","detail":"..."
std::string FailureJson(const RedfishFailure& failure);

}  // namespace toolkit
