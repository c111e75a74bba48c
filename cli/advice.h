#pragma once

#include <string>

#include "bmcredfish.h"

// What an operator should check or do next after a failed library call, from
// its failure record. host is the BMC's address as far as known (--host, or
// the one the host interface names; "" when not known), command the
// redfishctl command or the doctor link that failed. Text only: nothing is
// looked up, so an explanation never outlasts the command's deadline.
std::string FailureCheck(const RedfishFailure& failure, const std::string& host,
                         const std::string& command);
