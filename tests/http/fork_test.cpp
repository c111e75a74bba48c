// A child forked from a process using the client starts with no share in
// the parent's connection or locks.
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include "h2_peer.h"
#include "http_test.h"

namespace http_test {
namespace {

// A child that sends one request and exits with 0 when it was answered.
pid_t ForkRequest(HttpUserAgent& agent) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  alarm(20);  // a child that hangs is ended, and the parent sees the signal
  int code = 1;
  try {
    code = Send(agent, Get, "/child")->GetStatus().code == 200 ? 0 : 1;
  } catch (...) {
  }
  _exit(code);  // nothing of the parent's to run down: its threads are not here
}

// Each child opens a connection of its own, whether the parent was idle or
// one of its threads waited for a slow answer; the parent's stays as it was.
TEST(Fork, ChildrenGetConnectionsOfTheirOwn) {
  std::promise<void> arrived, release;
  std::shared_future<void> released = release.get_future().share();
  H2Peer peer([&](int request) {
    if (request == 1) {  // the slow answer
      arrived.set_value();
      released.wait();
    }
    return H2Peer::Respond;
  });
  Endpoint ep(peer.Port());
  EXPECT_EQ(Send(*ep.agent, Get, "/parent")->GetStatus().code, 200);

  std::thread slow(
      [&] { EXPECT_EQ(Send(*ep.agent, Get, "/slow", {}, 60000000)->GetStatus().code, 200); });
  // The request reached the peer, so its thread leads the connection.
  const bool waiting =
      arrived.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  EXPECT_TRUE(waiting);
  if (waiting) {
    EXPECT_EQ(WaitChild(ForkRequest(*ep.agent)), 0) << "while a thread waited";
  }
  release.set_value();
  slow.join();

  std::vector<pid_t> idle;
  for (int i = 0; i < 3; ++i) idle.push_back(ForkRequest(*ep.agent));
  for (pid_t pid : idle) EXPECT_EQ(WaitChild(pid), 0) << "while idle";
  EXPECT_EQ(Send(*ep.agent, Get, "/parent")->GetStatus().code, 200);
  EXPECT_EQ(ep.sockets.load(), 1);
  EXPECT_EQ(peer.Connections(), 5);
}

}  // namespace
}  // namespace http_test
