#pragma once

// A scripted h2c server for the faults nginx does not produce on demand: a
// connection reset or closed with a request outstanding, GOAWAY, refused and
// reset streams, connection errors. It records each request's header fields
// and answers with a bare ":status: 200". Its SETTINGS wait for the first
// request, so that an HTTP/1.1 answer there answers the preface.
#include <netinet/in.h>
#include <nghttp2/nghttp2.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace http_test {

class H2Peer {
 public:
  enum Action {
    Respond,
    ResetConnection,
    CloseConnection,
    RefuseStream,
    ResetStream,
    GoawayAndClose,           // GOAWAY that leaves the stream out, as unprocessed
    GoawayIncludingAndClose,  // GOAWAY that takes the stream in, then no answer
    // Connection errors; the socket then stays open, silent, until the client closes it.
    BadHeaderBlock,  // HEADERS whose block does not decode
    OversizedFrame,  // DATA longer than the client's maximum frame size
    Http1Answer,     // an HTTP/1.1 error page instead of HTTP/2
  };
  // Called for each complete request: its index over all connections.
  using Script = std::function<Action(int request)>;

  explicit H2Peer(Script script) : script_(std::move(script)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&a), len) != 0 || listen(listener_, 16) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
      throw std::runtime_error("H2Peer: cannot listen");
    }
    port_ = ntohs(a.sin_port);
    acceptor_ = std::thread([this] { Accept(); });
  }
  ~H2Peer() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (int fd : open_) shutdown(fd, SHUT_RDWR);
    }
    for (auto& t : connections_) t.join();
    close(listener_);
  }
  int Port() const { return port_; }
  using Fields = std::vector<std::pair<std::string, std::string>>;
  // The header fields of every request received, in order.
  std::vector<Fields> Received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  int Requests() { return static_cast<int>(Received().size()); }
  int Connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(connections_.size());
  }

 private:
  void Accept() {
    for (int fd; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      std::lock_guard<std::mutex> lock(mutex_);
      open_.insert(fd);
      connections_.emplace_back([this, fd] { Serve(fd); });
    }
  }

  static bool ReadAll(int fd, uint8_t* p, size_t n) {
    for (ssize_t r; n > 0; p += r, n -= static_cast<size_t>(r)) {
      if ((r = read(fd, p, n)) <= 0) return false;
    }
    return true;
  }
  static void Frame(int fd, uint8_t type, uint8_t flags, uint32_t stream,
                    std::vector<uint8_t> payload = {}) {
    const size_t n = payload.size();
    std::vector<uint8_t> f = {
        uint8_t(n >> 16),      uint8_t(n >> 8),       uint8_t(n),           type,           flags,
        uint8_t(stream >> 24), uint8_t(stream >> 16), uint8_t(stream >> 8), uint8_t(stream)};
    f.insert(f.end(), payload.begin(), payload.end());
    (void)!write(fd, f.data(), f.size());
  }
  static std::vector<uint8_t> Be32(uint32_t a, uint32_t b) {
    return {uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), uint8_t(a),
            uint8_t(b >> 24), uint8_t(b >> 16), uint8_t(b >> 8), uint8_t(b)};
  }

  void Serve(int fd) {
    uint8_t preface[24];
    uint32_t lastDone = 0;
    bool writing = true;  // false once our side is closed: frames are only counted
    bool greeted = false, ackOwed = false;
    auto greet = [&] {  // our SETTINGS, then the acknowledgement of the client's
      if (!std::exchange(greeted, true)) Frame(fd, 4, 0, 0);
      if (std::exchange(ackOwed, false)) Frame(fd, 4, 1, 0);
    };
    bool open = ReadAll(fd, preface, sizeof preface) &&
                std::memcmp(preface, "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 24) == 0;
    nghttp2_hd_inflater* inflater = nullptr;
    nghttp2_hd_inflate_new(&inflater);
    while (open) {
      uint8_t h[9];
      if (!ReadAll(fd, h, 9)) break;
      std::vector<uint8_t> payload((h[0] << 16) | (h[1] << 8) | h[2]);
      if (!ReadAll(fd, payload.data(), payload.size())) break;
      const uint8_t type = h[3], flags = h[4];
      const uint32_t stream = ((h[5] & 0x7fu) << 24) | (h[6] << 16) | (h[7] << 8) | h[8];
      if (type == 1) {
        Fields fields = Decode(inflater, payload);
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(std::move(fields));
      }
      if (!writing) continue;
      ackOwed |= type == 4 && !(flags & 1);
      if (greeted || type == 6) greet();  // a PING is answered after our SETTINGS
      if (type == 6 && !(flags & 1)) Frame(fd, 6, 1, 0, payload);  // PING: answer
      if ((type != 0 && type != 1) || !(flags & 1)) continue;      // until END_STREAM
      int index;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        index = requests_++;
      }
      const Action action = script_(index);
      if (action != Http1Answer) greet();
      switch (action) {
        case Respond:
          Frame(fd, 1, 0x5, stream, {0x88});  // END_STREAM|END_HEADERS, ":status: 200"
          lastDone = stream;
          break;
        case ResetConnection: {
          linger l{1, 0};
          setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
          open = false;
          break;
        }
        case CloseConnection:  // FIN without a word
          shutdown(fd, SHUT_WR);
          writing = false;
          break;
        case GoawayAndClose:
        case GoawayIncludingAndClose:
          Frame(fd, 7, 0, 0, Be32(action == GoawayAndClose ? lastDone : stream, 0));
          shutdown(fd, SHUT_WR);
          writing = false;
          break;
        case RefuseStream:
          Frame(fd, 3, 0, stream, {0, 0, 0, 7});
          break;
        case ResetStream:
          Frame(fd, 3, 0, stream, {0, 0, 0, 2});
          break;  // INTERNAL_ERROR
        case BadHeaderBlock:
          Frame(fd, 1, 0x5, stream, {0x80});  // index 0: no such field
          writing = false;
          break;
        case OversizedFrame:
          Frame(fd, 0, 0, stream, std::vector<uint8_t>(16385));
          writing = false;
          break;
        case Http1Answer: {
          const std::string page =
              "HTTP/1.1 400 Bad Request\r\nContent-Length: 11\r\n\r\nBad Request";
          (void)!write(fd, page.data(), page.size());
          writing = false;
          break;
        }
      }
    }
    nghttp2_hd_inflate_del(inflater);
    std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(fd);
    close(fd);
  }

  // Our client sends HEADERS without padding or priority, in one frame.
  static Fields Decode(nghttp2_hd_inflater* inflater, std::vector<uint8_t>& block) {
    Fields out;
    uint8_t* in = block.data();
    size_t left = block.size();
    for (;;) {
      nghttp2_nv nv;
      int flags = 0;
      ssize_t n = nghttp2_hd_inflate_hd2(inflater, &nv, &flags, in, left, 1);
      if (n < 0) break;
      in += n;
      left -= static_cast<size_t>(n);
      if (flags & NGHTTP2_HD_INFLATE_EMIT) {
        out.emplace_back(std::string(reinterpret_cast<char*>(nv.name), nv.namelen),
                         std::string(reinterpret_cast<char*>(nv.value), nv.valuelen));
      }
      if (flags & NGHTTP2_HD_INFLATE_FINAL) {
        nghttp2_hd_inflate_end_headers(inflater);
        break;
      }
      if (n == 0 && left == 0) break;
    }
    return out;
  }

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  std::thread acceptor_;
  std::mutex mutex_;
  std::set<int> open_;
  std::vector<std::thread> connections_;
  int requests_ = 0;
  std::vector<Fields> received_;
};

}  // namespace http_test
