#include "metrics_server.h"

#include <microhttpd.h>
#include <netdb.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "exposition.h"

namespace {

// Enough for an HA pair's scrapes and a benchmark's burst; idle keep-alive
// connections beyond it are refused rather than holding threads.
constexpr unsigned kConnectionLimit = 128;
constexpr unsigned kIdleSeconds = 60;
constexpr size_t kThreadStack = size_t{256} * 1024;

constexpr char kLandingPage[] =
    "<html><head><title>bmcredfish-exporter</title></head><body>"
    "<h1>bmcredfish-exporter</h1><p>This host's BMC sensors, through the local proxy: "
    "<a href=\"/metrics\">/metrics</a></p></body></html>\n";

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

MHD_Result Answer(void* server, MHD_Connection* connection, const char* url, const char* method,
                  const char* /*version*/, const char* /*uploadData*/, size_t* /*uploadSize*/,
                  void** /*context*/) {
  if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 &&
      std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
    return Send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD\n", "text/plain");
  }
  if (std::strcmp(url, "/") == 0) {
    return Send(connection, MHD_HTTP_OK, kLandingPage, "text/html; charset=utf-8");
  }
  if (std::strcmp(url, "/metrics") != 0) {
    return Send(connection, MHD_HTTP_NOT_FOUND, "not found; see /metrics\n", "text/plain");
  }
  const char* header = MHD_lookup_connection_value(connection, MHD_HEADER_KIND,
                                                   "X-Prometheus-Scrape-Timeout-Seconds");
  // Any client may send it: "inf", "nan" or 1e300 must not become a deadline.
  const double sent = header != nullptr ? std::strtod(header, nullptr) : 0;
  const double timeout = std::isfinite(sent) && sent > 0 ? std::min(sent, 86400.0) : 0;
  const auto& metrics = static_cast<MetricsServer*>(server)->Metrics();
  return Send(connection, MHD_HTTP_OK, metrics(timeout), kExpositionContentType);
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

}  // namespace

MetricsServer::~MetricsServer() { Stop(); }

void MetricsServer::Stop() {
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  daemon_ = nullptr;
}

bool MetricsServer::Start(const std::string& address, std::string& error) {
  std::string host, port;
  if (!SplitAddress(address, host, port)) {
    error = "bad listen address '" + address + "' (HOST:PORT, [IPV6]:PORT or :PORT)";
    return false;
  }
  const auto portNumber = static_cast<uint16_t>(std::atoi(port.c_str()));
  const unsigned flags =
      MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL;
  auto start = [&](unsigned extra, const sockaddr* where) {
    MHD_OptionItem options[] = {
        {MHD_OPTION_CONNECTION_LIMIT, kConnectionLimit, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, nullptr},
        {MHD_OPTION_THREAD_STACK_SIZE, kThreadStack, nullptr},
        {where != nullptr ? MHD_OPTION_SOCK_ADDR : MHD_OPTION_END, 0, const_cast<sockaddr*>(where)},
        {MHD_OPTION_END, 0, nullptr}};
    return MHD_start_daemon(flags | extra, portNumber, nullptr, nullptr, &Answer, this,
                            MHD_OPTION_ARRAY, options, MHD_OPTION_END);
  };
  if (host.empty()) {
    // Every address: IPv6 and IPv4 on one socket, or IPv4 alone on a host
    // without IPv6.
    daemon_ = start(MHD_USE_DUAL_STACK, nullptr);
    if (daemon_ == nullptr) daemon_ = start(0, nullptr);
  } else {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || found == nullptr) {
      error = "cannot resolve listen address '" + address + "'";
      return false;
    }
    daemon_ = start(found->ai_family == AF_INET6 ? MHD_USE_IPv6 : 0, found->ai_addr);
    freeaddrinfo(found);
  }
  if (daemon_ == nullptr) error = "cannot listen on '" + address + "': " + std::strerror(errno);
  return daemon_ != nullptr;
}
