#pragma once

#include <string>

#include "snapshot.h"

struct Credentials {
  std::string user;
  std::string password;
};

// One read of this host's BMC through the library: the systems' power state
// (whatever the BMC's maker), the sensor readings, then the hardware's
// health, given the last health document so that the library reads only what
// changed (the systems' health comes with the power state's request). Says on standard error when a read
// fails differently from the one before, and when reads succeed again, so
// that a failing BMC does not flood the log.
class BmcReader {
 public:
  BmcReader(Credentials credentials, unsigned timeoutMs, bool readHealth)
      : credentials_(std::move(credentials)), timeoutMs_(timeoutMs), readHealth_(readHealth) {}
  ReadResult operator()();

  // The health document a later read starts from (textfile mode: the state file's).
  void RememberHealth(std::string document) { lastHealth_ = std::move(document); }

 private:
  Credentials credentials_;
  unsigned timeoutMs_;
  bool readHealth_;
  std::string lastHealth_;
  std::string lastFailure_;
};
