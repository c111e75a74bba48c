#pragma once

#include <functional>
#include <string>

struct MHD_Daemon;

// The exporter's HTTP side (libmicrohttpd, a thread per connection, since a
// scrape may wait for a BMC read): GET /metrics, a landing page at /, 404
// elsewhere, 405 for methods other than GET and HEAD.
class MetricsServer {
 public:
  // The body of /metrics for a scraper that gave timeoutSeconds in
  // X-Prometheus-Scrape-Timeout-Seconds (0 when it gave none).
  using MetricsFunction = std::function<std::string(double timeoutSeconds)>;

  explicit MetricsServer(MetricsFunction metrics) : metrics_(std::move(metrics)) {}
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  // address: "HOST:PORT", "[IPV6]:PORT" or ":PORT" (every address).
  bool Start(const std::string& address, std::string& error);
  void Stop();

  const MetricsFunction& Metrics() const { return metrics_; }

 private:
  MetricsFunction metrics_;
  MHD_Daemon* daemon_ = nullptr;
};
