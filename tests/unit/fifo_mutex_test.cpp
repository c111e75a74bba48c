#include "utils/fifo_mutex.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/tessel/system.h"
#include "tests/unit/test_support.h"

using Tessel::System::GetMonotonicTime;

// A caller waiting for its turn sleeps in the library, so it keeps the log's
// deadline as the HTTP client's sleepers do: other calls' traces wait to
// leave together instead of one write a call, and leave by the time it wakes.
TEST(FifoMutex, AWaitingCallerKeepsTheLogsBatch) {
  const std::string path = testing::TempDir() + "bmcredfish-fifo-" + std::to_string(getpid());
  unlink(path.c_str());
  setenv("BMCREDFISH_LOG", ("file:" + path).c_str(), 1);
  Tessel::Service::ReconfigureLogSink();
  auto logger = Tessel::Service::CreateLogger("Redfish");
  logger->SetLevel(6);
  Tessel::Service::LogInternal(logger, 5, "the sink chosen");  // at the first record
  const auto written = [&] {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str().find("a call that ended meanwhile") != std::string::npos;
  };

  // Nothing is written for the deadline of a sleeper from after this.
  const int64_t start = GetMonotonicTime();
  redfish::FifoMutex mutex;
  mutex.lock();
  std::atomic<pid_t> tid{0};
  std::thread waiter([&] {
    const Tessel::Service::LogBatch call;
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    mutex.lock();
    mutex.unlock();
  });
  test_support::WaitUntilBlocked(tid);
  std::thread([&] {
    const Tessel::Service::LogBatch call;
    Tessel::Service::LogInternal(logger, 5, "a call that ended meanwhile");
  }).join();
  // Written before any deadline came, it was not left to the waiter.
  const bool writtenAtOnce = written();
  if (GetMonotonicTime() < start + 50000) {
    EXPECT_FALSE(writtenAtOnce);
  }
  mutex.unlock();
  waiter.join();
  EXPECT_TRUE(written()) << "written by the last sleeper to wake";

  unsetenv("BMCREDFISH_LOG");
  Tessel::Service::ReconfigureLogSink();
  unlink(path.c_str());
}
