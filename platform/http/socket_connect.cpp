// Opening a pool's TCP connection: non-blocking, each resolved address in
// turn, within the pool's connect time-out.
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/http/name_resolution.h"
#include "platform/http/pool_core.h"

namespace Tessel::Http {

void PoolCore::StartConnect() {
  if (addressIndex_ >= addresses_.size()) {
    addressIndex_ = 0;
    if (const int rc = ResolveAddresses(*spec_, addresses_)) {
      Failure f{Failure::Other, 0, "cannot resolve " + spec_->GetHost() + ": " + gai_strerror(rc)};
      while (!queue_.empty()) {
        Ref<Exchange> ex = queue_.front();
        queue_.pop_front();
        Finish(*ex, nullptr, f);
      }
      return;
    }
  }
  // The limit covers one round of the addresses, each time a connection is
  // opened: not the pool's first connect alone.
  if (addressIndex_ == 0) {
    connectDeadlineUs_ = System::GetMonotonicTime() + config_->connectTimeoutUs;
  }
  const std::string& raw = addresses_[addressIndex_];
  const auto* sa = reinterpret_cast<const sockaddr*>(raw.data());
  current_ = std::make_unique<PoolConnection>(this);
  PoolConnection& c = *current_;
  conn_ = ConnectionState::Connecting;
  c.fd = socket(sa->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (c.fd < 0) return ConnectFailed(errno);
  int one = 1;
  setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (const SocketCallback& cb = spec_->GetSocketCallback()) {
    try {
      System::TCPClientSocket socket(c.fd);
      cb(&socket);
    } catch (...) {
      return ConnectFailed(ECONNABORTED);
    }
  }
  if (connect(c.fd, sa, static_cast<socklen_t>(raw.size())) == 0) return Connected();
  if (errno != EINPROGRESS) ConnectFailed(errno);
}

// After the leader's poll: the socket is writable (the connect ended), or
// not yet, and then only the deadline matters.
void PoolCore::ConnectProgress(bool socketReady) {
  if (socketReady) {
    int error = 0;
    socklen_t len = sizeof error;
    getsockopt(current_->fd, SOL_SOCKET, SO_ERROR, &error, &len);
    if (error == 0) {
      Connected();
    } else {
      ConnectFailed(error);
    }
  } else if (System::GetMonotonicTime() >= connectDeadlineUs_) {
    ConnectFailed(ETIMEDOUT);
  }
}

// Closes the attempt's socket (the connection object goes with it) and tries
// the next address, or fails what is queued.
void PoolCore::ConnectFailed(int error) {
  current_.reset();
  conn_ = ConnectionState::None;
  if (error != ETIMEDOUT && ++addressIndex_ < addresses_.size()) return StartConnect();
  addresses_.clear();
  addressIndex_ = 0;
  // Nothing of these requests reached a server: callers may send them again.
  const std::string text = std::string("cannot connect to ") + spec_->ToString() + ": " +
                           (error == ETIMEDOUT ? "connect timed out" : std::strerror(error));
  while (!queue_.empty()) {
    Ref<Exchange> ex = queue_.front();
    queue_.pop_front();
    // One sent before (and declared unprocessed) must not read as never sent.
    Finish(*ex, nullptr,
           ex->everSent ? Failure{Failure::Other, 0, text} : Failure{Failure::System, error, text});
  }
}

}  // namespace Tessel::Http
