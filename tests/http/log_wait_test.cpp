// A call's traces reach the log within their deadline while other calls wait
// in the pool for answers that do not come: the waiting threads wake to write
// them. Against the scripted peer, which holds the first answer back.
#include <unistd.h>

#include <future>

#include "h2_peer.h"
#include "http_test.h"
#include "platform/tessel/logging.h"

namespace http_test {
namespace {

TEST(LogDeadline, AFinishedCallsTracesDoNotWaitForCallsWaitingForAnswers) {
  const std::string path = testing::TempDir() + "bmcredfish-log-wait-" + std::to_string(getpid());
  unlink(path.c_str());
  setenv("BMCREDFISH_LOG", ("file:" + path).c_str(), 1);
  Service::ReconfigureLogSink();
  auto logger = Service::CreateLogger("Redfish");
  logger->SetLevel(6);

  std::promise<void> arrived, release;
  std::shared_future<void> released = release.get_future().share();
  H2Peer peer([&](int request) {
    if (request == 0) {
      arrived.set_value();
      released.wait();
    }
    return H2Peer::Respond;
  });
  Endpoint ep(peer.Port());
  const auto slowCall = [&](const char* trace) {
    return std::thread([&, trace] {
      const Service::LogBatch call;
      TESSEL_LOG(logger, 5, "%1", trace);
      EXPECT_EQ(Send(*ep.agent, Get, "/slow", {}, 60000000)->GetStatus().code, 200);
    });
  };
  std::thread leader = slowCall("leader's trace");  // its request reaches the peer: it leads
  EXPECT_EQ(arrived.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  std::thread follower = slowCall("follower's trace");
  {
    const Service::LogBatch call;
    TESSEL_LOG(logger, 5, "finished call's trace");
  }
  // Without the waiters' help these stay unwritten until the answers come;
  // the waiting calls' own go once 50 ms old.
  for (const char* text : {"finished call's trace", "leader's trace", "follower's trace"}) {
    EXPECT_TRUE(Eventually([&] { return ReadFile(path).find(text) != std::string::npos; }, 20))
        << text;
  }
  release.set_value();
  leader.join();
  follower.join();
  unsetenv("BMCREDFISH_LOG");
  Service::ReconfigureLogSink();
  unlink(path.c_str());
}

}  // namespace
}  // namespace http_test
