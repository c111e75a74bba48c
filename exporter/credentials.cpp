#include "credentials.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

std::string DefaultCredentialsPath() {
  const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (directory != nullptr && directory[0] != '\0') {
    return std::string(directory) + "/" + kCredentialName;
  }
  return kCredentialsPath;
}

bool LoadCredentials(const std::string& path, Credentials& out, std::string& error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    error = path + ": cannot be opened";
    return false;
  }
  struct stat st {};
  std::string text;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    error = path + ": not a regular file";
  } else if ((st.st_mode & 077) != 0) {
    error = path + ": group or others may read it (chmod 600)";
  } else {
    char buffer[4096];
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) text.assign(buffer, static_cast<size_t>(n));
  }
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
