#pragma once

#include <string>

#include "log_metrics.h"
#include "snapshot.h"

struct Credentials {
  std::string user;
  std::string password;
};

// One read of this host's BMC through the library: the systems' power state
// (whatever the BMC's maker), the sensor readings, the hardware's health,
// given the last health document so that the library reads only what changed
// (the systems' health comes with the power state's request), then what is
// new in the event log. Says on standard error when a read fails differently
// from the one before, and when reads succeed again, so that a failing BMC
// does not flood the log.
class BmcReader {
 public:
  BmcReader(Credentials credentials, unsigned timeoutMs, bool readHealth,
            double logWindow = kDefaultLogWindow)
      : credentials_(std::move(credentials)),
        timeoutMs_(timeoutMs),
        readHealth_(readHealth),
        log_(logWindow) {}
  ReadResult operator()();

  // The health document a later read starts from (textfile mode: the state file's).
  void RememberHealth(std::string document) { lastHealth_ = std::move(document); }

  // The event log's tally from an earlier run (LogTally::Save); false when
  // the text is not one. With a state file, the tally is read from it now
  // and written to it after every read, atomically.
  bool RestoreLog(const std::string& state) { return log_.Load(state); }
  void KeepLogIn(std::string stateFile);

 private:
  void ReadLog(ReadResult& read, std::string& why);

  Credentials credentials_;
  unsigned timeoutMs_;
  bool readHealth_;
  std::string lastHealth_;
  std::string lastFailure_;
  LogTally log_;
  std::string logFile_;
};
