#pragma once

#include <exception>
#include <string>

namespace Tessel {

class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

class InvalidArgumentException : public Exception {
 public:
  using Exception::Exception;
};

class TimeoutException : public Exception {
 public:
  using Exception::Exception;
};

// A failure reported by the operating system; carries its errno value.
class SystemException : public Exception {
 public:
  SystemException(int error, std::string message) : Exception(std::move(message)), error_(error) {}
  int GetError() const noexcept { return error_; }

 private:
  int error_;
};

namespace Ssl {
class SSLVerifyException : public Exception {
 public:
  using Exception::Exception;
};
}  // namespace Ssl

}  // namespace Tessel
