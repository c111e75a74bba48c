#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "collector.h"

// The exporter's HTTP side: GET /metrics, a landing page at /, 404 elsewhere,
// 405 for methods other than GET and HEAD.
//
// One thread serves every connection (libmicrohttpd driven from its own poll
// loop), so that no client can use up threads. A scrape that must wait for a
// BMC read is suspended and resumed when the read completes or its deadline
// comes. Each connection must bring a whole request within the request
// time-out of its opening (or of its previous answer), however it trickles
// the bytes, and each client address holds only a few connections: sockets
// left open or fed a byte at a time cannot keep Prometheus out.
class MetricsServer {
 public:
  struct Options {
    std::string address = ":9742";  // "HOST:PORT", "[IPV6]:PORT" or ":PORT" (every address)
    double scrapeTimeout = 10;      // deadline of a scrape that states none, seconds
    double timeoutOffset = 0.5;     // answer this long before the scraper's deadline
    std::string libraryVersion;     // for the build information
    std::chrono::milliseconds requestTimeout{5000};
    unsigned connectionsPerAddress = 8;
    unsigned connections = 256;
  };

  explicit MetricsServer(Collector& collector);
  ~MetricsServer();
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;

  bool Start(const Options& options, std::string& error);
  // The port served, once started (the one chosen when the address gave 0).
  uint16_t Port() const;
  // Closes every connection; waiting scrapes are not answered.
  void Stop();

  struct Impl;

 private:
  Collector& collector_;
  std::unique_ptr<Impl> impl_;
};
