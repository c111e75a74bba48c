#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bmcredfish.h"
#include "doctor.h"
#include "platform/mirel/smbios.h"

// What doctor asks of this host and of the library. LibraryProbe asks them;
// tests answer from a script, without a network.

// The firmware's type 42 structures, or why there are none to read.
struct HostInterfaces {
  int readError = 0;  // errno of reading the table; 0 when it was read
  int status = 0;     // the parser's NUC_* status
  SMBIOS_Problem problem{"", 0};
  size_t count = 0;  // structures met (more than found holds when there are many)
  std::vector<SMBIOS_HostInterface> found;
};

// One read of the route document on the configuration endpoint.
struct RouteRead {
  enum class Kind { Answered, TimedOut, Failed };
  Kind kind = Kind::Answered;
  int status = 0;      // when answered
  std::string reason;  // the status line's reason
  std::string text;    // the document, for a 200 answer
  std::string error;   // when failed: the system's words
};

class DoctorProbe {
 public:
  virtual ~DoctorProbe() = default;
  virtual HostInterfaces ReadHostInterfaces() = 0;
  virtual RouteRead ReadRoute() = 0;
  // The library's calls: each returns its result code; the texts are the
  // library's as they came.
  virtual int GetResource(const std::string& path, std::string& body) = 0;
  virtual int GetAllowedCommands(unsigned int& commands) = 0;
  virtual int GetPowerState(bool& on) = 0;
  virtual int GetMac(std::string& mac) = 0;
  virtual int GetSensorReadings(std::string& json) = 0;
  // The record of the last call, which returned result.
  virtual RedfishFailure LastFailure(int result) = 0;
};

// The real host and library. The SMBIOS table and the route document are
// read with the library's own reader and exchange, compiled into redfishctl,
// before any library call: the library's first call rewrites a route that
// names another BMC, and it keeps only the first host interface's address.
// requestMs gives each library call its time-out.
class LibraryProbe : public DoctorProbe {
 public:
  LibraryProbe(const DoctorOptions& options, std::function<unsigned int()> requestMs)
      : o_(options), requestMs_(std::move(requestMs)) {}
  HostInterfaces ReadHostInterfaces() override;
  RouteRead ReadRoute() override;
  int GetResource(const std::string& path, std::string& body) override;
  int GetAllowedCommands(unsigned int& commands) override;
  int GetPowerState(bool& on) override;
  int GetMac(std::string& mac) override;
  int GetSensorReadings(std::string& json) override;
  RedfishFailure LastFailure(int result) override;

 private:
  const char* Host() const { return o_.host.empty() ? nullptr : o_.host.c_str(); }
  const DoctorOptions& o_;
  std::function<unsigned int()> requestMs_;
};
