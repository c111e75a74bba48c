#pragma once

#include <cstdint>

namespace Tessel::System {

// Monotonic clock in microseconds; only differences are meaningful.
int64_t GetMonotonicTime() noexcept;

// A connected client socket, handed to a connection spec's per-socket callback
// before the connection is used.
class TCPClientSocket {
 public:
  explicit TCPClientSocket(int fd) noexcept : fd_(fd) {}
  int GetFd() const noexcept { return fd_; }

 private:
  int fd_;
};

}  // namespace Tessel::System
