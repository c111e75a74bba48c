#pragma once

#include <string>

#include "snapshot.h"

struct Credentials {
  std::string user;
  std::string password;
};

// One read of this host's BMC through the library: its systems (the power
// state, whatever the BMC's maker), then the sensor readings. Says on standard error when a read
// fails differently from the one before, and when reads succeed again, so that a failing BMC does
// not flood the log.
class BmcReader {
 public:
  BmcReader(Credentials credentials, unsigned timeoutMs)
      : credentials_(std::move(credentials)), timeoutMs_(timeoutMs) {}
  ReadResult operator()();

 private:
  Credentials credentials_;
  unsigned timeoutMs_;
  std::string lastFailure_;
};
