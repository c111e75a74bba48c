#pragma once

#include <cstdio>
#include <string>

// The library's log is shown only when asked for: with --verbose on standard
// error, with --log FILE appended to FILE; otherwise the library writes none
// (its traces hold the Base64 credentials). When asked, the library writes to
// standard error, which points at an unlinked file whose new lines are copied
// out after each call; redfishctl's own messages go to the real standard error.
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
  // Copies the lines written since the last call where they were asked for.
  void Drain();

 private:
  FILE* err_ = stderr;
  int capture_ = -1;
  long offset_ = 0;
  FILE* copy_ = nullptr;
  bool verbose_ = false;
};
