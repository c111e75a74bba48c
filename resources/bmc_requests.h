#pragma once

// What the resource code needs of a connection: a GET and a POST of a request
// target, the logger and the base URL. The connection provides it, so the
// resource code depends on this much and no more of it.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/tessel/logging.h"

namespace redfish {

class BmcRequests {
 public:
  virtual ~BmcRequests() = default;

  // The request as the connection sends it, with its credentials: the answer's
  // body in body (response), and the connection's result for it.
  virtual int Get(const std::string& target, std::string& body,
                  std::chrono::milliseconds timeout) = 0;
  virtual int Post(const std::string& target, const std::string& body, std::string& response,
                   std::chrono::milliseconds timeout) = 0;

  // GETs of the 1.1 reads: each target with its credentials, at most
  // maxInFlight at once, each answered within timeout; results[i] and
  // bodies[i] answer targets[i] (0, the HTTP status, 40005 for 401, or a
  // transport code). Unlike Get, not queued behind the connection's other
  // requests: the BMC sees them side by side.
  virtual void GetConcurrently(const std::vector<std::string>& targets, size_t maxInFlight,
                               std::chrono::milliseconds timeout, std::vector<int>& results,
                               std::vector<std::string>& bodies) = 0;

  virtual Tessel::Service::Logger* Logger() const = 0;
  // The prefix of every request target ("/bmc").
  virtual const std::string& BaseUrl() const = 0;
};

}  // namespace redfish
