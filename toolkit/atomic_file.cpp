#include "toolkit/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace toolkit {

bool WriteAtomically(const std::string& path, const std::string& text, std::string& error) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temporary = folder + "/." + base + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) {
    error = "cannot create a file in " + folder + ": " + std::strerror(errno);
    return false;
  }
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  const bool ok = written == text.size() && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
  const int saved = errno;
  if (close(fd) != 0 || !ok || rename(temporary.c_str(), path.c_str()) != 0) {
    error = "cannot write " + path + ": " + std::strerror(ok ? errno : saved);
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace toolkit
