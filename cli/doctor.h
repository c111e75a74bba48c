#pragma once

#include <functional>
#include <string>

struct DoctorOptions {
  std::string user;
  std::string password;
  std::string host;  // --host; empty for this host's own BMC
  bool json = false;
  bool fixRoute = false;  // let the library rewrite a route that names another BMC
};

// Walks the chain from this host to its BMC, one line per link, and stops at
// the first broken one; the capabilities at its end are each checked. Sends
// only GETs; the route document is written only with fixRoute. requestMs
// gives each library call its time-out; starting(link) is called as each
// link's check begins. Returns the exit status: 0 when every link works
// (warnings included), 1 otherwise.
int RunDoctor(const DoctorOptions& options, const std::function<unsigned int()>& requestMs,
              const std::function<void(const char*)>& starting);
