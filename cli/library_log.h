#pragma once

#include <cstdio>
#include <string>

// The library writes its log to standard error. redfishctl points fd 2 at an
// unlinked file so it can read the lines back to explain a failure, copies
// them to --log FILE or (with --verbose) to the real standard error, and keeps
// its own messages on the real standard error.
class LibraryLog {
 public:
  LibraryLog(const std::string& copyPath, bool verbose);
  ~LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;

  // False when --log FILE was asked for and cannot be written.
  bool CopyOpen() const { return copy_ != nullptr; }
  // The real standard error, for redfishctl's own messages.
  FILE* Err() const { return err_; }
  // Log text written since the last call; it is copied as configured first.
  std::string Drain();

 private:
  FILE* err_ = stderr;
  int capture_ = -1;
  long offset_ = 0;
  FILE* copy_ = nullptr;
  bool verbose_ = false;
};

// The cause of a failing result, from the result code and the library's log:
// who answered, and what to check. Lines end with '\n'.
std::string ExplainFailure(int code, const std::string& log, const std::string& host,
                           const std::string& command);
