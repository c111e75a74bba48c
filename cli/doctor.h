#pragma once

#include <cstdio>
#include <functional>
#include <string>

struct DoctorOptions {
  std::string user;
  std::string password;
  std::string host;  // --host; empty for this host's own BMC
  bool json = false;
  bool fixRoute = false;  // let the library rewrite a route that names another BMC
};

class DoctorProbe;

// Walks the chain from this host to its BMC link by link, in order, one line
// per link to out, and stops at the first broken one: the links after it show
// as skipped. Sends only GETs; the route document is written only with
// fixRoute. starting(link) is called as each link's check begins. Returns the
// exit status: 0 when every link works (warnings included), 1 otherwise.
int RunDoctor(const DoctorOptions& options, DoctorProbe& probe,
              const std::function<void(const char*)>& starting, FILE* out);
