// An agent without a pool (the proxy's configuration endpoint) speaks plain
// HTTP/1.1: one connection per request, closed after the response, driven on
// the thread that waits for it. Endpoints that speak HTTP/1.1 or detect
// either protocol accept it; an h2c-only one is reported as such.
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/http/exchange.h"
#include "platform/http/name_resolution.h"

namespace Tessel::Http {
namespace {

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

[[noreturn]] void Fail(const std::string& text) {
  throw Exception(text + "; the request may have been processed and is not sent again");
}

class Http1 {
 public:
  Http1(Exchange& ex, int64_t deadline) : ex_(ex), deadline_(deadline) {}

  void Run() {
    Connect();
    Send();
    Receive();
  }

 private:
  // Waits for `events`; false when `until` passed first.
  bool WaitFor(short events, int64_t until) {
    for (;;) {
      const int64_t left = until - System::GetMonotonicTime();
      if (left <= 0) return false;
      pollfd p{sock_.fd, events, 0};
      const int r = poll(&p, 1, static_cast<int>(std::min<int64_t>(INT_MAX, (left + 999) / 1000)));
      if (r > 0) return true;
      if (r < 0 && errno != EINTR) return true;  // the next call reports the error
    }
  }

  [[noreturn]] void TimedOut() {
    ex_.state = Exchange::State::Cancelled;
    throw TimeoutException("no response within the wait limit");
  }

  void Connect() {
    const ConnectionSpec& spec = *ex_.h1Spec;
    std::vector<std::string> addresses;
    if (const int rc = ResolveAddresses(spec, addresses)) {
      throw Exception("cannot resolve " + spec.GetHost() + ": " + gai_strerror(rc));
    }
    // One try, at the first (IPv4 first): the configuration endpoint is local.
    sockaddr_storage address{};
    const auto length = static_cast<socklen_t>(addresses.front().size());
    std::memcpy(&address, addresses.front().data(), length);
    sock_.fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (sock_.fd < 0) throw SystemException(errno, "socket");
    int one = 1;
    setsockopt(sock_.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (const SocketCallback& cb = spec.GetSocketCallback()) {
      System::TCPClientSocket s(sock_.fd);
      try {
        cb(&s);
      } catch (const std::exception& e) {
        throw Exception(std::string("socket callback failed: ") + e.what());
      }
    }
    const std::string text = "cannot connect to " + spec.ToString();
    if (connect(sock_.fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
      if (errno != EINPROGRESS) throw SystemException(errno, text + ": " + std::strerror(errno));
      const int64_t connectBy = System::GetMonotonicTime() + ex_.h1ConnectTimeoutUs;
      if (!WaitFor(POLLOUT, std::min(deadline_, connectBy))) {
        if (connectBy <= deadline_) throw SystemException(ETIMEDOUT, text + ": connect timed out");
        TimedOut();
      }
      int error = 0;
      socklen_t len = sizeof error;
      getsockopt(sock_.fd, SOL_SOCKET, SO_ERROR, &error, &len);
      if (error != 0) throw SystemException(error, text + ": " + std::strerror(error));
    }
  }

  void Send() {
    const ConnectionSpec& spec = *ex_.h1Spec;
    std::string out;
    out.reserve(256 + ex_.body.size());
    out.append(MethodName(ex_.method)).append(" ").append(ex_.target).append(" HTTP/1.1\r\n");
    bool hasHost = false, hasLength = false;
    for (const auto& h : ex_.headers) {
      hasHost |= strcasecmp(h.name.c_str(), "Host") == 0;
      hasLength |= strcasecmp(h.name.c_str(), "Content-Length") == 0;
      out.append(h.name).append(": ").append(h.value).append("\r\n");
    }
    if (!hasHost) {
      out.append("Host: ")
          .append(spec.GetHost())
          .append(":")
          .append(std::to_string(spec.GetPort()));
      out.append("\r\n");
    }
    const bool hasBody = ex_.HasBody();
    if (hasBody && !hasLength) {
      out.append("Content-Length: ").append(std::to_string(ex_.body.size())).append("\r\n");
    }
    out.append("Connection: close\r\n\r\n");
    if (hasBody) out.append(ex_.body);
    for (size_t off = 0; off < out.size();) {
      const ssize_t w = send(sock_.fd, out.data() + off, out.size() - off, MSG_NOSIGNAL);
      if (w > 0) {
        off += static_cast<size_t>(w);
      } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (!WaitFor(POLLOUT, deadline_)) TimedOut();
      } else if (errno != EINTR) {
        Fail(std::string("sending failed: ") + std::strerror(errno));
      }
    }
  }

  // Reads more into in_; false at the end of the stream.
  bool ReadMore() {
    char buf[16384];
    for (;;) {
      const ssize_t n = recv(sock_.fd, buf, sizeof buf, 0);
      if (n > 0) {
        in_.append(buf, static_cast<size_t>(n));
        return true;
      }
      if (n == 0) return false;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (!WaitFor(POLLIN, deadline_)) TimedOut();
      } else if (errno != EINTR) {
        Fail(std::string("receiving failed: ") + std::strerror(errno));
      }
    }
  }

  void Need(size_t bytes) {
    while (in_.size() - pos_ < bytes) {
      if (!ReadMore()) Fail("the server closed the connection before the response was complete");
    }
  }

  std::string_view Line() {
    size_t end;
    while ((end = in_.find("\r\n", pos_)) == std::string::npos) {
      if (in_.size() - pos_ > 65536) Fail("response header line too long");
      if (!ReadMore()) Fail("the server closed the connection before the response was complete");
    }
    std::string_view line(in_.data() + pos_, end - pos_);
    pos_ = end + 2;
    return line;
  }

  void Append(std::string& body, size_t n) {
    if (body.size() + n > static_cast<uint64_t>(ex_.maxBodyBytes)) {
      Fail("response body larger than " + std::to_string(ex_.maxBodyBytes) + " bytes");
    }
    body.append(in_, pos_, n);
    pos_ += n;
  }

  void Receive() {
    int status = 0;
    std::vector<Header> headers;
    do {  // informational responses come before the final one
      Need(5);
      if (in_.compare(pos_, 5, "HTTP/") != 0) {
        Fail("the endpoint did not answer in HTTP/1.1 (it may speak only HTTP/2)");
      }
      std::string_view line = Line();
      if (line.size() < 12 || line[8] != ' ') Fail("malformed status line");
      status = 0;
      for (size_t i = 9; i < 12; ++i) {
        if (line[i] < '0' || line[i] > '9') Fail("malformed status line");
        status = status * 10 + (line[i] - '0');
      }
      headers.clear();
      for (std::string_view h; !(h = Line()).empty();) {
        const size_t colon = h.find(':');
        if (colon == std::string_view::npos || colon == 0) Fail("malformed response header");
        std::string_view v = h.substr(colon + 1);
        while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
        while (!v.empty() && (v.back() == ' ' || v.back() == '\t')) v.remove_suffix(1);
        headers.push_back(Header{std::string(h.substr(0, colon)), std::string(v)});
        if (headers.size() > 200) Fail("too many response headers");
      }
    } while (status >= 100 && status < 200);

    auto find = [&](const char* name) -> const std::string* {
      for (const auto& h : headers) {
        if (strcasecmp(h.name.c_str(), name) == 0) return &h.value;
      }
      return nullptr;
    };
    std::string body;
    const bool none = ex_.method == Head || status == 204 || status == 304;
    const std::string* te = find("Transfer-Encoding");
    const std::string* cl = find("Content-Length");
    if (none) {
    } else if (te != nullptr && strcasecmp(te->c_str(), "identity") != 0) {
      for (;;) {  // chunked
        std::string_view size = Line();
        uint64_t n = 0;
        size_t i = 0;
        for (; i < size.size() && std::isxdigit(static_cast<unsigned char>(size[i])); ++i) {
          if (n > (1ull << 40)) Fail("malformed chunk size");
          n = n * 16 + static_cast<uint64_t>(std::isdigit(static_cast<unsigned char>(size[i]))
                                                 ? size[i] - '0'
                                                 : (std::tolower(size[i]) - 'a' + 10));
        }
        if (i == 0) Fail("malformed chunk size");
        if (n == 0) break;
        if (n > static_cast<uint64_t>(ex_.maxBodyBytes))
          Fail("response body larger than the limit");
        Need(static_cast<size_t>(n) + 2);
        Append(body, static_cast<size_t>(n));
        pos_ += 2;
      }
    } else if (cl != nullptr) {
      uint64_t n = 0;
      for (char c : *cl) {
        if (c < '0' || c > '9' || n > (1ull << 50)) Fail("malformed Content-Length");
        n = n * 10 + static_cast<uint64_t>(c - '0');
      }
      if (n > static_cast<uint64_t>(ex_.maxBodyBytes)) {
        Fail("response body larger than " + std::to_string(ex_.maxBodyBytes) + " bytes");
      }
      body.reserve(static_cast<size_t>(n));
      Need(static_cast<size_t>(n));
      Append(body, static_cast<size_t>(n));
    } else {
      while (ReadMore()) {
        if (in_.size() - pos_ > static_cast<uint64_t>(ex_.maxBodyBytes)) {
          Fail("response body larger than " + std::to_string(ex_.maxBodyBytes) + " bytes");
        }
      }
      Append(body, in_.size() - pos_);
    }
    ex_.response = MakeRef<ClientResponse>(status, std::move(headers), std::move(body));
  }

  Exchange& ex_;
  int64_t deadline_;
  Fd sock_;
  std::string in_;
  size_t pos_ = 0;
};

}  // namespace

void RunHttp1(Exchange& ex, int64_t limitUs) {
  if (ex.state == Exchange::State::Cancelled) {
    throw TimeoutException("the exchange was cancelled by a time-out");
  }
  if (ex.state == Exchange::State::Done) return;
  const int64_t deadline =
      limitUs > INT64_MAX / 2 ? INT64_MAX : System::GetMonotonicTime() + limitUs;
  try {
    Http1(ex, deadline).Run();
  } catch (const TimeoutException&) {
    throw;
  } catch (const SystemException& e) {
    ex.failure = {Failure::System, e.GetError(), e.what()};
  } catch (const std::exception& e) {
    ex.failure = {Failure::Other, 0, e.what()};
  }
  ex.state = Exchange::State::Done;
  if (!ex.callback) return;
  try {
    ex.callback();
  } catch (...) {
    // A callback's failure is its own; the exchange's result stands.
  }
}

}  // namespace Tessel::Http
