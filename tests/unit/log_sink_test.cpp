// The built-in log sink: one record per line whatever the message holds, a
// bounded record, the destination and masking chosen by the environment.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/tessel/logging.h"
#include "platform/tessel/system.h"

using Tessel::Service::kMaxLogRecordBytes;
using Tessel::Service::LogRecordText;

TEST(LogRecord, ControlBytesAreEscapedAndLongMessagesCut) {
  EXPECT_EQ(LogRecordText("Bad JSON: 'x'\n"), "Bad JSON: 'x'") << "own final line break dropped";
  EXPECT_EQ(LogRecordText("a\nb\r\tc"), "a\\nb\\r\\tc");
  EXPECT_EQ(LogRecordText(std::string("n\0l\x1b[31m\x7f", 9)), "n\\x00l\\x1b[31m\\x7f");
  EXPECT_EQ(LogRecordText("caf\xc3\xa9 \\n"), "caf\xc3\xa9 \\n") << "UTF-8 and backslashes kept";
  // Bytes are scanned eight at a time: any position, next to any neighbour.
  EXPECT_EQ(LogRecordText("0123456789abc\x1f ~\x80\xff"), "0123456789abc\\x1f ~\x80\xff");
  EXPECT_EQ(LogRecordText("0123456789abcde\x7f"), "0123456789abcde\\x7f");
  EXPECT_EQ(LogRecordText(" !~\x80\x9f\xc3\xa9\xff !~\x80\x9f\xc3\xa9\xff"),
            " !~\x80\x9f\xc3\xa9\xff !~\x80\x9f\xc3\xa9\xff");

  const std::string huge(60 << 20, 'x');
  const std::string cut = LogRecordText(huge);
  EXPECT_EQ(cut, std::string(kMaxLogRecordBytes, 'x') + " [cut " +
                     std::to_string(huge.size() - kMaxLogRecordBytes) + " bytes]");
  // An escape is never split: the record stops before it.
  const std::string lines(kMaxLogRecordBytes, '\n');
  const std::string half = LogRecordText("x" + lines);
  EXPECT_EQ(half.substr(0, 3), "x\\n");
  EXPECT_EQ(half.find(" [cut "), 1 + 2 * ((kMaxLogRecordBytes - 1) / 2));
  EXPECT_EQ(half.find('\n'), std::string::npos);
}

namespace {

struct BuiltInSink : testing::Test {
  BuiltInSink() : logger(Tessel::Service::CreateLogger("Redfish")) {
    logger->SetLevel(6);
    path = testing::TempDir() + "bmcredfish-log-" + std::to_string(getpid());
    unlink(path.c_str());
  }
  ~BuiltInSink() override {
    unsetenv("BMCREDFISH_LOG");
    unsetenv("BMCREDFISH_LOG_MASK");
    Tessel::Service::ReconfigureLogSink();
    unlink(path.c_str());
  }
  void Use(const std::string& destination, bool mask = false) {
    setenv("BMCREDFISH_LOG", destination.c_str(), 1);
    if (mask) setenv("BMCREDFISH_LOG_MASK", "1", 1);
    Tessel::Service::ReconfigureLogSink();
  }
  std::string File() const {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  Tessel::Ref<Tessel::Service::Logger> logger;
  std::string path;
};

}  // namespace

TEST_F(BuiltInSink, FileIsPrivateAndAForgedRecordStaysInsideItsLine) {
  Use("file:" + path);
  Tessel::Service::LogInternal(logger, 3, "Bad JSON: '%1'",
                               "{}\n2026-01-01T00:00:00.000000Z Redfish[3] forged");
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600);
  const std::string text = File();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  EXPECT_NE(text.find(" Redfish[3] Bad JSON: '{}\\n2026-01-01T00:00:00.000000Z Redfish[3] forged'"),
            std::string::npos)
      << text;
}

TEST_F(BuiltInSink, NoneWritesNothingAndAnUnopenableFileFallsBackToStderr) {
  Use("none");
  testing::internal::CaptureStderr();
  Tessel::Service::LogInternal(logger, 3, "dropped");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  Use("file:/nonexistent-dir/log");
  testing::internal::CaptureStderr();
  Tessel::Service::LogInternal(logger, 3, "kept");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Redfish[3] kept\n"), std::string::npos);
}

// A call's traces leave in one write at its end; a failure is written at
// once, after the traces held before it; masking applies to held traces too.
TEST_F(BuiltInSink, BatchHoldsTracesButNeverAFailureAndKeepsTheOrder) {
  Use("file:" + path, true);
  {
    const Tessel::Service::LogBatch outer;
    Tessel::Service::LogInternal(logger, 5, "trace 1 _jwt: %1", "YWRtaW46c2VjcmV0");
    {
      const Tessel::Service::LogBatch inner;
      Tessel::Service::LogInternal(logger, 5, "trace 2");
    }
    EXPECT_EQ(File(), "") << "held until the outermost batch ends";
    Tessel::Service::LogInternal(logger, 3, "failure");
    const std::string atFailure = File();
    EXPECT_LT(atFailure.find("trace 1 _jwt: ***\n"), atFailure.find("trace 2\n"));
    EXPECT_LT(atFailure.find("trace 2\n"), atFailure.find("Redfish[3] failure\n"));
    for (int i = 0; i < 200; ++i)
      Tessel::Service::LogInternal(logger, 5, "%1", std::string(100, 'x'));
    Tessel::Service::LogInternal(logger, 5, "last");
  }
  const std::string text = File();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 204) << "a full batch is written, not lost";
  EXPECT_EQ(text.substr(text.size() - 5), "last\n");
}

// Records of calls on many threads leave together (one thread writes what
// others handed over): none is lost, split or reordered within its thread.
TEST_F(BuiltInSink, ConcurrentCallsRecordsStayWholeAndInOrder) {
  Use("file:" + path);
  constexpr int kThreads = 8, kCalls = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kCalls; ++i) {
        const Tessel::Service::LogBatch call;
        Tessel::Service::LogInternal(logger, 5, "t%1 c%2 plain", t, i);
        Tessel::Service::LogInternal(logger, 5, "t%1 c%2 tab\tescaped", t, i);
        if (i % 50 == 0) Tessel::Service::LogInternal(logger, 3, "t%1 c%2 failure", t, i);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::istringstream lines(File());
  std::vector<int> next(kThreads, 0);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    int t = -1, c = -1;
    const size_t at = line.find("] t");
    ASSERT_NE(at, std::string::npos) << line;
    ASSERT_EQ(std::sscanf(line.c_str() + at + 3, "%d c%d", &t, &c), 2) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_GE(c, next[t]) << "out of order: " << line;
    next[t] = c;
  }
  EXPECT_EQ(count, kThreads * (2 * kCalls + kCalls / 50));
}

// Traces wait for other calls only while a thread sleeps in the library and
// will wake by their deadline to write them; else the call that ends writes
// them (the HTTP client's tests check its waits are such sleepers).
TEST_F(BuiltInSink, TracesWaitOnlyForASleeperThatWakesByTheirDeadline) {
  using Tessel::Service::LogSleep;
  using Tessel::System::GetMonotonicTime;
  const auto written = [this](const char* text) { return File().find(text) != std::string::npos; };
  const auto otherCall = [this](const char* text) {
    std::thread([&] {
      const Tessel::Service::LogBatch call;
      Tessel::Service::LogInternal(logger, 5, "%1", text);
    }).join();
  };
  Use("file:" + path);
  const Tessel::Service::LogBatch slow;  // a call that goes on meanwhile, not asleep
  otherCall("ended while none slept");
  EXPECT_TRUE(written("ended while none slept")) << "no thread would wake to write it";

  const LogSleep sleep;  // the slow call waits for its answer
  EXPECT_LE(sleep.Until(INT64_MAX), GetMonotonicTime() + 50000);
  otherCall("ended while the slow call slept");
  const int64_t handedOver = GetMonotonicTime();
  EXPECT_FALSE(written("ended while the slow call slept")) << "left to the sleeper";
  std::thread([&] {
    // A sleeper from after the hand-over wakes at those records' deadline and
    // writes them, though the first still sleeps.
    const LogSleep later;
    EXPECT_LE(later.Until(INT64_MAX), handedOver + 50000);
    std::this_thread::sleep_for(
        std::chrono::microseconds(later.Until(INT64_MAX) - GetMonotonicTime()));
  }).join();
  EXPECT_TRUE(written("ended while the slow call slept"));
}
