#include "library_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

LibraryLog::LibraryLog(const std::string& copyPath, bool verbose) : verbose_(verbose) {
  if (copyPath.empty() && !verbose) {
    setenv("BMCREDFISH_LOG", "none", 1);
    return;
  }
  // Whatever sink the environment names, the lines must come here to be copied.
  setenv("BMCREDFISH_LOG", "stderr", 1);
  int saved = dup(STDERR_FILENO);
  if (saved >= 0) {
    FILE* f = fdopen(saved, "w");
    if (f) {
      err_ = f;
    } else {
      close(saved);
    }
  }
  char pattern[] = "/tmp/redfishctl-log-XXXXXX";
  capture_ = mkstemp(pattern);
  if (capture_ >= 0) {
    unlink(pattern);
    if (err_ != stderr) dup2(capture_, STDERR_FILENO);
  }
  if (!copyPath.empty()) {
    // The library's traces hold the Base64 credentials: the file is the user's alone.
    int fd = open(copyPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
      copy_ = fdopen(fd, "a");
      if (!copy_) close(fd);
    }
  }
}

LibraryLog::~LibraryLog() {
  Drain();
  if (copy_) std::fclose(copy_);
  if (capture_ >= 0) close(capture_);
}

void LibraryLog::Drain() {
  if (capture_ < 0) return;
  char buf[8192];
  for (;;) {
    ssize_t n = pread(capture_, buf, sizeof buf, offset_);
    if (n <= 0) break;
    offset_ += n;
    if (copy_) std::fwrite(buf, 1, static_cast<size_t>(n), copy_);
    if (verbose_) std::fwrite(buf, 1, static_cast<size_t>(n), err_);
  }
  if (copy_) std::fflush(copy_);
  if (verbose_) std::fflush(err_);
}
