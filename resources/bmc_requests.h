#pragma once

// What the resource code needs of a connection: a GET and a POST of a request
// target, the logger and the base URL. The connection provides it, so the
// resource code depends on this much and no more of it.

#include <chrono>
#include <string>

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

  virtual Tessel::Service::Logger* Logger() const = 0;
  // The prefix of every request target ("/bmc").
  virtual const std::string& BaseUrl() const = 0;
};

}  // namespace redfish
