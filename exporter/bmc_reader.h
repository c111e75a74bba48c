#pragma once

#include <string>

#include "log_metrics.h"
#include "snapshot.h"

struct Credentials {
  std::string user;
  std::string password;
};

// One read of this host's BMC through the library: the power state, the
// sensor readings, then what is new in the event log. Says on standard error
// when a read fails differently from the one before, and when reads succeed
// again, so that a failing BMC does not flood the log.
class BmcReader {
 public:
  BmcReader(Credentials credentials, unsigned timeoutMs, double logWindow = kDefaultLogWindow)
      : credentials_(std::move(credentials)), timeoutMs_(timeoutMs), log_(logWindow) {}
  ReadResult operator()();

  // The event log's tally from an earlier run (LogTally::Save); false when
  // the text is not one. With a state file, the tally is read from it now
  // and written to it after every read, atomically.
  bool RestoreLog(const std::string& state) { return log_.Load(state); }
  void KeepLogIn(std::string stateFile);

 private:
  void ReadLog(ReadResult& read, std::string& why);

  Credentials credentials_;
  unsigned timeoutMs_;
  std::string lastFailure_;
  LogTally log_;
  std::string logFile_;
};
