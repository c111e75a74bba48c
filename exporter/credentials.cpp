#include "credentials.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// One line user:password, with room to spare.
constexpr size_t kMaxSize = 4096;

std::string WhatItIs(mode_t mode) {
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

// The file's text, or "" with error set when the file is not one to trust.
std::string ReadChecked(int fd, const std::string& path, std::string& error) {
  struct stat st {};
  if (fstat(fd, &st) != 0) {
    error = path + ": " + std::strerror(errno);
    return {};
  }
  if (!S_ISREG(st.st_mode)) {
    error = path + ": " + WhatItIs(st.st_mode) + ", not a regular file";
    return {};
  }
  // Its owner can read it whatever its mode says; root may anyway.
  if (st.st_uid != geteuid() && st.st_uid != 0) {
    error = path + ": owned by uid " + std::to_string(st.st_uid) + "; it must be owned by uid " +
            std::to_string(geteuid()) + " (this process) or root";
    return {};
  }
  if ((st.st_mode & 077) != 0) {
    error = path + ": group or others may read it (chmod 600)";
    return {};
  }
  std::string text;
  char buffer[1024];
  ssize_t n = 0;
  while (text.size() <= kMaxSize && (n = read(fd, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(n));
  }
  if (n < 0) {
    error = path + ": " + std::strerror(errno);
  } else if (text.size() > kMaxSize) {
    error = path + ": larger than " + std::to_string(kMaxSize) + " bytes";
  } else if (text.find('\0') != std::string::npos) {
    // It would cut the user or the password short without a word.
    error = path + ": holds a NUL byte";
  }
  return error.empty() ? text : std::string();
}

}  // namespace

std::string DefaultCredentialsPath() {
  const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (directory != nullptr && directory[0] != '\0') {
    return std::string(directory) + "/" + kCredentialName;
  }
  return kCredentialsPath;
}

bool LoadCredentials(const std::string& path, Credentials& out, std::string& error) {
  // Non-blocking, so that opening a FIFO does not wait for a writer for ever.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    error = path + ": cannot be opened: " + std::strerror(errno);
    return false;
  }
  std::string text = ReadChecked(fd, path, error);
  close(fd);
  if (!error.empty()) return false;
  text = text.substr(0, text.find_first_of("\r\n"));
  const size_t colon = text.find(':');
  if (colon == 0 || colon == std::string::npos || colon + 1 == text.size()) {
    error = path + ": expected one line user:password";
    return false;
  }
  out.user = text.substr(0, colon);
  out.password = text.substr(colon + 1);
  return true;
}
