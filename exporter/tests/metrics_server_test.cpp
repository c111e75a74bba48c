// The HTTP side against clients that hold sockets, trickle bytes or wait for
// the BMC: none of them keeps another client from its answer.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "metrics_server.h"

namespace {

using Clock = Collector::Clock;
using std::chrono::milliseconds;

// A BMC whose reads the test may hold.
struct GatedBmc {
  std::mutex mutex;
  std::condition_variable changed;
  bool held = false;
  int started = 0;

  Collector::ReadFunction Function() {
    return [this] {
      std::unique_lock<std::mutex> lock(mutex);
      ++started;
      changed.notify_all();
      changed.wait(lock, [&] { return !held; });
      ReadResult r;
      r.powerOn = true;
      r.readings = R"({"Chassis":[]})";
      return r;
    };
  }
  // Holds (or lets through) the reads from now on; the number started so far.
  int Hold(bool hold) {
    std::lock_guard<std::mutex> lock(mutex);
    held = hold;
    changed.notify_all();
    return started;
  }
  void AwaitStarted(int reads) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return started >= reads; });
  }
};

// The collector (reading at every scrape) and the server on a free port.
struct Exporter {
  GatedBmc bmc;
  Collector collector{bmc.Function(), milliseconds(0)};
  MetricsServer server{collector};
  explicit Exporter(MetricsServer::Options options) {
    options.address = "127.0.0.1:0";
    std::string error;
    if (!server.Start(options, error)) ADD_FAILURE() << error;
  }
  ~Exporter() {
    server.Stop();
    bmc.Hold(false);
  }
};

// A connection from the loopback address from to the server, with a receive
// time-out that keeps a broken server from hanging the test.
int Connect(uint16_t port, const char* from = "127.0.0.1") {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, from, &address.sin_addr);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  address.sin_port = htons(port);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const timeval limit{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return fd;
}

// The whole answer ("" when the server closed without one).
std::string Get(uint16_t port, const std::string& path, const std::string& headers = "",
                const char* from = "127.0.0.1") {
  const int fd = Connect(port, from);
  const std::string request =
      "GET " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + headers + "\r\n";
  send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string answer;
  char buffer[4096];
  ssize_t n;
  while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0) answer.append(buffer, n);
  close(fd);
  return answer;
}

// Whether the server ended the connection within the time given.
bool ClosedWithin(int fd, milliseconds limit) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(limit.count())) != 1) return false;
  char byte;
  return recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

}  // namespace

TEST(MetricsServer, CutsARequestNotWholeByItsDeadlineHoweverItTrickles) {
  MetricsServer::Options options;
  options.requestTimeout = milliseconds(500);
  Exporter exporter(options);
  const uint16_t port = exporter.server.Port();
  const int silent = Connect(port);
  const int trickling = Connect(port);
  const auto start = Clock::now();
  send(trickling, "GET /metrics HTTP/1.1\r\n", 23, MSG_NOSIGNAL);
  // A header line every 100 ms would renew a time-out per byte for ever.
  bool cut = false;
  for (int i = 0; i < 50 && !cut; ++i) {
    send(trickling, "X-A: b\r\n", 8, MSG_NOSIGNAL);
    cut = ClosedWithin(trickling, milliseconds(100));
  }
  EXPECT_TRUE(cut) << "still open after 5 s";
  EXPECT_GE(Clock::now() - start, milliseconds(500));
  EXPECT_TRUE(ClosedWithin(silent, milliseconds(5000)));
  close(silent);
  close(trickling);
  EXPECT_NE(Get(port, "/metrics").find("bmcredfish_up 1"), std::string::npos);
}

TEST(MetricsServer, LimitsTheConnectionsOfOneAddressNotOthers) {
  MetricsServer::Options options;
  options.connectionsPerAddress = 2;
  Exporter exporter(options);
  const uint16_t port = exporter.server.Port();
  const int held[] = {Connect(port), Connect(port)};
  EXPECT_EQ(Get(port, "/"), "") << "a third from the same address";
  EXPECT_NE(Get(port, "/metrics", "", "127.0.0.2").find("200 OK"), std::string::npos);
  for (int fd : held) close(fd);
}

TEST(MetricsServer, AScrapeWaitingForTheBmcHoldsUpNoOtherRequest) {
  Exporter exporter(MetricsServer::Options{});
  const uint16_t port = exporter.server.Port();
  EXPECT_NE(Get(port, "/metrics").find("bmcredfish_stale 0"), std::string::npos);

  // Its read is held: the scrape waits, at most its 30 s less the offset.
  const int before = exporter.bmc.Hold(true);
  auto waiting = std::async(std::launch::async, [&] {
    return Get(port, "/metrics", "X-Prometheus-Scrape-Timeout-Seconds: 30\r\n");
  });
  exporter.bmc.AwaitStarted(before + 1);
  EXPECT_NE(Get(port, "/").find("200 OK"), std::string::npos);
  // A scrape with a shorter deadline gets the earlier values by then.
  const std::string late = Get(port, "/metrics", "X-Prometheus-Scrape-Timeout-Seconds: 1\r\n");
  EXPECT_NE(late.find("bmcredfish_stale 1"), std::string::npos) << late;

  // The read completes: the waiting scrape is answered at once, not at its
  // deadline (after the client's 10 s).
  exporter.bmc.Hold(false);
  const std::string fresh = waiting.get();
  EXPECT_NE(fresh.find("bmcredfish_stale 0"), std::string::npos) << fresh;
}
