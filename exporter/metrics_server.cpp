#include "metrics_server.h"

#include <microhttpd.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unordered_map>

#include "exposition.h"

namespace {

using Clock = Collector::Clock;

// Plenty for Prometheus's request head; the body goes out from its own buffer.
constexpr size_t kConnectionMemory = size_t{16} * 1024;

constexpr char kLandingPage[] =
    "<html><head><title>bmcredfish-exporter</title></head><body>"
    "<h1>bmcredfish-exporter</h1><p>This host's BMC sensors, through the local proxy: "
    "<a href=\"/metrics\">/metrics</a></p></body></html>\n";

// What the loop knows of a connection.
struct Connection {
  int fd = -1;
  Clock::time_point deadline;  // for the request under way (unless suspended)
  bool cut = false;            // shut down at its deadline; the daemon closes it next
  bool scraping = false;       // a scrape was begun and not yet answered
  bool suspended = false;      // waiting for the collector
  Collector::Ticket ticket;
  Clock::time_point scrapeStart;
};

MHD_Result Send(MHD_Connection* connection, unsigned status, const std::string& body,
                const char* contentType) {
  MHD_Response* response = MHD_create_response_from_buffer(
      body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  if (status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  }
  const MHD_Result queued = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return queued;
}

// Splits "HOST:PORT", "[HOST]:PORT" or ":PORT".
bool SplitAddress(const std::string& address, std::string& host, std::string& port) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon + 1 == address.size()) return false;
  host = address.substr(0, colon);
  port = address.substr(colon + 1);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return port.find_first_not_of("0123456789") == std::string::npos && port.size() <= 5 &&
         std::atoi(port.c_str()) <= 65535;
}

Clock::duration Seconds(double s) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

}  // namespace

struct MetricsServer::Impl {
  Collector& collector;
  Options options;
  MHD_Daemon* daemon = nullptr;
  int wake = -1;
  std::atomic<bool> stopping{false};
  std::thread thread;
  // Touched by the loop's thread only (and by Stop once it has ended).
  std::unordered_map<MHD_Connection*, Connection> connections;

  Impl(Collector& c, Options o) : collector(c), options(std::move(o)) {}

  Clock::time_point RequestDeadline() const { return Clock::now() + options.requestTimeout; }

  MHD_Result Answer(MHD_Connection* mhd, const char* url, const char* method) {
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 &&
        std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
      return Send(mhd, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD\n", "text/plain");
    }
    if (std::strcmp(url, "/") == 0) {
      return Send(mhd, MHD_HTTP_OK, kLandingPage, "text/html; charset=utf-8");
    }
    if (std::strcmp(url, "/metrics") != 0) {
      return Send(mhd, MHD_HTTP_NOT_FOUND, "not found; see /metrics\n", "text/plain");
    }
    Connection& c = connections.at(mhd);
    if (!c.scraping) {
      c.scraping = true;
      c.scrapeStart = Clock::now();
      c.ticket = collector.Begin(c.scrapeStart + Seconds(ScrapeWait(mhd)));
      if (!collector.Ready(c.ticket)) {
        c.suspended = true;
        MHD_suspend_connection(mhd);
        return MHD_YES;
      }
    }
    c.scraping = false;
    const Snapshot snapshot = collector.Finish(c.ticket);
    const double took = std::chrono::duration<double>(Clock::now() - c.scrapeStart).count();
    return Send(mhd, MHD_HTTP_OK, Render(snapshot, {WallSeconds(), took, options.libraryVersion}),
                kExpositionContentType);
  }

  // How long a scrape may wait for a read: its scraper's time-out less the
  // offset, at most half of it taken off.
  double ScrapeWait(MHD_Connection* mhd) const {
    const char* header =
        MHD_lookup_connection_value(mhd, MHD_HEADER_KIND, "X-Prometheus-Scrape-Timeout-Seconds");
    // Any client may send it: "inf", "nan" or 1e300 must not become a deadline.
    const double sent = header != nullptr ? std::strtod(header, nullptr) : 0;
    const double limit =
        std::isfinite(sent) && sent > 0 ? std::min(sent, 86400.0) : options.scrapeTimeout;
    return std::max(limit - options.timeoutOffset, limit / 2);
  }

  // Resumes the scrapes that can be answered and cuts the connections past
  // their deadline: the daemon reads the end of the stream and closes them.
  void Sweep() {
    const auto now = Clock::now();
    for (auto& [mhd, c] : connections) {
      if (c.suspended) {
        if (!collector.Ready(c.ticket)) continue;
        c.suspended = false;
        c.deadline = now + options.requestTimeout;  // to send the answer
        MHD_resume_connection(mhd);
      } else if (!c.cut && now >= c.deadline) {
        shutdown(c.fd, SHUT_RDWR);
        c.cut = true;
      }
    }
  }

  // Milliseconds until the next deadline of ours or of the daemon; -1: none.
  int Timeout() const {
    auto next = Clock::time_point::max();
    for (const auto& [mhd, c] : connections) {
      if (c.suspended) {
        next = std::min(next, c.ticket.deadline);
      } else if (!c.cut) {
        next = std::min(next, c.deadline);
      }
    }
    const auto now = Clock::now();
    MHD_UNSIGNED_LONG_LONG daemonMs = 0;
    if (MHD_get_timeout(daemon, &daemonMs) == MHD_YES) {
      next = std::min(next, now + std::chrono::milliseconds(
                                      std::min<MHD_UNSIGNED_LONG_LONG>(daemonMs, INT_MAX)));
    }
    if (next == Clock::time_point::max()) return -1;
    if (next <= now) return 0;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
  }

  void Loop() {
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD);
    pollfd fds[] = {{info->epoll_fd, POLLIN, 0}, {wake, POLLIN, 0}};
    while (!stopping) {
      if (poll(fds, 2, Timeout()) < 0 && errno != EINTR) break;
      uint64_t count;
      while (read(wake, &count, sizeof count) > 0) {
      }
      Sweep();
      MHD_run(daemon);
    }
  }

  void Wake() const {
    const uint64_t one = 1;
    if (write(wake, &one, sizeof one) < 0) {
      // Full (it never is: the loop drains it): the loop is awake anyway.
    }
  }
};

namespace {

using Impl = MetricsServer::Impl;

MHD_Result AnswerCallback(void* impl, MHD_Connection* connection, const char* url,
                          const char* method, const char* /*version*/, const char* /*uploadData*/,
                          size_t* /*uploadSize*/, void** /*context*/) {
  return static_cast<Impl*>(impl)->Answer(connection, url, method);
}

void ConnectionCallback(void* impl, MHD_Connection* connection, void** /*socketContext*/,
                        MHD_ConnectionNotificationCode code) {
  auto& server = *static_cast<Impl*>(impl);
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    Connection& c = server.connections[connection];
    c.fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    c.deadline = server.RequestDeadline();
  } else {
    server.connections.erase(connection);
  }
}

// A request answered (or abandoned): the next one on the connection has the
// whole time-out again.
void CompletedCallback(void* impl, MHD_Connection* connection, void** /*context*/,
                       MHD_RequestTerminationCode /*why*/) {
  auto& server = *static_cast<Impl*>(impl);
  const auto found = server.connections.find(connection);
  if (found == server.connections.end()) return;
  found->second.scraping = false;
  found->second.deadline = server.RequestDeadline();
}

}  // namespace

MetricsServer::MetricsServer(Collector& collector) : collector_(collector) {}

MetricsServer::~MetricsServer() { Stop(); }

uint16_t MetricsServer::Port() const {
  if (!impl_) return 0;
  return MHD_get_daemon_info(impl_->daemon, MHD_DAEMON_INFO_BIND_PORT)->port;
}

void MetricsServer::Stop() {
  if (!impl_) return;
  collector_.OnChange(nullptr);
  impl_->stopping = true;
  impl_->Wake();
  impl_->thread.join();
  // The daemon refuses to stop while a connection is suspended.
  for (auto& [mhd, c] : impl_->connections) {
    if (c.suspended) MHD_resume_connection(mhd);
  }
  MHD_stop_daemon(impl_->daemon);
  close(impl_->wake);
  impl_.reset();
}

bool MetricsServer::Start(const Options& options, std::string& error) {
  std::string host, port;
  if (!SplitAddress(options.address, host, port)) {
    error = "bad listen address '" + options.address + "' (HOST:PORT, [IPV6]:PORT or :PORT)";
    return false;
  }
  auto impl = std::make_unique<Impl>(collector_, options);
  const auto portNumber = static_cast<uint16_t>(std::atoi(port.c_str()));
  // The daemon's own idle time-out, renewed by every byte, only backs up
  // the request deadline the loop keeps.
  const auto idleSeconds = static_cast<unsigned>(
      std::chrono::ceil<std::chrono::seconds>(options.requestTimeout).count());
  auto start = [&](unsigned flags, const sockaddr* where) {
    const MHD_OptionItem address[] = {
        {where != nullptr ? MHD_OPTION_SOCK_ADDR : MHD_OPTION_END, 0, const_cast<sockaddr*>(where)},
        {MHD_OPTION_END, 0, nullptr}};
    return MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | flags, portNumber, nullptr,
                            nullptr, &AnswerCallback, impl.get(), MHD_OPTION_CONNECTION_LIMIT,
                            options.connections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
                            options.connectionsPerAddress, MHD_OPTION_CONNECTION_TIMEOUT,
                            std::max(idleSeconds, 1u), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                            kConnectionMemory, MHD_OPTION_NOTIFY_CONNECTION, &ConnectionCallback,
                            impl.get(), MHD_OPTION_NOTIFY_COMPLETED, &CompletedCallback, impl.get(),
                            MHD_OPTION_ARRAY, address, MHD_OPTION_END);
  };
  MHD_Daemon* daemon = nullptr;
  if (host.empty()) {
    // Every address: IPv6 and IPv4 on one socket, or IPv4 alone on a host
    // without IPv6.
    daemon = start(MHD_USE_DUAL_STACK, nullptr);
    if (daemon == nullptr) daemon = start(0, nullptr);
  } else {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
      error = "cannot resolve listen address '" + options.address + "'";
      return false;
    }
    daemon = start(found->ai_family == AF_INET6 ? MHD_USE_IPv6 : 0, found->ai_addr);
    freeaddrinfo(found);
  }
  if (daemon == nullptr) {
    error = "cannot listen on '" + options.address + "': " + std::strerror(errno);
    return false;
  }
  impl->daemon = daemon;
  impl->wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (impl->wake < 0) {
    error = std::string("eventfd: ") + std::strerror(errno);
    MHD_stop_daemon(daemon);
    return false;
  }
  Impl* loop = impl.get();
  collector_.OnChange([loop] { loop->Wake(); });
  impl->thread = std::thread([loop] { loop->Loop(); });
  impl_ = std::move(impl);
  return true;
}
