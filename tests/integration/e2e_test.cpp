// The library as a host service uses it, against the emulated host. Run by
// tools/host-sim, which provides the environment read below.
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

#include "it_support.h"

using it::Control;
using it::Env;
using it::Lib;
using it::Logged;
using it::ReadLog;

namespace {

// What each emulator profile is, as a caller sees it.
struct Profile {
  std::string mac;  // the last interface of the first manager
  int resetDone;    // result of a reset that did something
  int resetNoop;    // result of a reset that needed none
  bool hasSensors;
  bool knownVendor;
  bool powerCycle;
};

const std::map<std::string, Profile> kProfiles = {
    {"dell", {"b0:7b:25:e4:1f:6a", 204, 40006, true, true, true}},
    {"hpe", {"0A:CA:FE:F0:0D:04", 0, 40006, false, true, false}},
    {"lenovo", {"08:8f:c3:b2:47:1e", 40006, 40006, true, true, true}},
    {"generic", {"3C:A8:2A:5F:90:1C", 0, 0, true, false, true}},
};

const Profile& P() { return kProfiles.at(Env("E2E_PROFILE")); }
// The calls on the local host, with the emulator's credentials.
int PowerState(bool& on) { return Lib().powerState("admin", "secret", nullptr, 5000, &on); }
int Mac(const char* wanted, char* buffer, unsigned int& length) {
  return Lib().macAddress("admin", "secret", nullptr, wanted, 5000, buffer, &length);
}
int Sensors(char* buffer, unsigned int& length) {
  return Lib().sensors("admin", "secret", nullptr, 5000, buffer, &length);
}
int Power(const std::string& mac, REDFISHCMD command) {
  return Lib().power("admin", "secret", nullptr, mac.c_str(), command, 5000);
}

std::vector<std::string> Paths(const std::vector<Logged>& log) {
  std::vector<std::string> out;
  for (const auto& l : log) out.push_back(l["method"] + " " + l["path"]);
  return out;
}

// One round of the three queries on the local host; returns how many failed.
int QueryRound() {
  bool on = false;
  char mac[32];
  unsigned int length = sizeof mac;
  int failures = PowerState(on) != 0 || !on;
  failures += Mac(P().mac.c_str(), mac, length) != 0;
  length = 0;
  const int rc = Sensors(nullptr, length);
  return failures + (rc != (P().hasSensors ? 0 : 40001));
}

int Posts() {
  int n = 0;
  for (const auto& l : ReadLog(Env("EMULATOR_LOG"))) n += l["method"] == "POST";
  return n;
}

class EndToEnd : public testing::Test {
 protected:
  void SetUp() override {
    Lib().closeAll();  // a fresh connection: cold discovery
    Control("/power", R"({"system":0,"PowerState":"On"})");
    Control("/faults", "[]");
    Control("/reset-log", "{}");
  }
};

}  // namespace

// The requests and results of each call are the conformance table's; here
// what it does not look at: the headers, and the state as the caller sees it.
TEST_F(EndToEnd, HeadersAndTheStateTheCallerSees) {
  bool on = false;
  if (!P().knownVendor) {
    EXPECT_EQ(PowerState(on), 2);
    return;
  }
  ASSERT_EQ(PowerState(on), 0);
  EXPECT_TRUE(on);
  for (const auto& l : ReadLog(Env("EMULATOR_LOG"))) {
    EXPECT_EQ(l.Header("Authorization"), "Basic YWRtaW46c2VjcmV0");
    EXPECT_EQ(l.Header("Accept"), "application/json");
  }
  ASSERT_EQ(Power(P().mac, REDFISHCMD_GRACEFUL_SHUTDOWN), P().resetDone);
  const Logged post = ReadLog(Env("EMULATOR_LOG")).back();
  EXPECT_EQ(post.Header("Content-Type"), "application/json");
  EXPECT_EQ(post.Header("Accept"), "") << "a POST names no Accept";
  ASSERT_EQ(PowerState(on), 0);
  EXPECT_FALSE(on);
  EXPECT_EQ(Power(P().mac, REDFISHCMD_GRACEFUL_SHUTDOWN), P().resetNoop) << "already off";
  EXPECT_EQ(Posts(), 2);
}

TEST_F(EndToEnd, MacGuardAndUnadvertisedCommandsSendNothing) {
  EXPECT_EQ(Power("00:11:22:33:44:55", REDFISHCMD_FORCE_OFF), 40001);
  EXPECT_EQ(Power("", REDFISHCMD_FORCE_OFF), 40001) << "an empty MAC is searched like any other";
  std::string upper = P().mac;
  for (auto& c : upper) c = static_cast<char>(std::islower(c) ? std::toupper(c) : std::tolower(c));
  EXPECT_EQ(Power(upper, REDFISHCMD_FORCE_OFF), 40001) << "the BMC's notation, exactly";
  if (P().knownVendor && !P().powerCycle) {
    EXPECT_EQ(Power(P().mac, REDFISHCMD_POWER_CYCLE), 40003);
  }
  EXPECT_EQ(Posts(), 0);
}

// Sixteen callers on one host discover it once; then callers and closers
// race, which runs under TSan too: a freed connection in use shows as a crash,
// a sanitizer report or a failed call.
TEST_F(EndToEnd, SixteenThreadsOnOneHostThenClosersRacingThem) {
  if (!P().knownVendor) GTEST_SKIP();
  std::atomic<int> failures{0};
  std::atomic<int> closes{0};
  for (const bool closers : {false, true}) {
    std::atomic<int> callersLeft{16};
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 5 || (closers && closes.load() < 100); ++i) {
          failures += QueryRound();
          failures += Power("00:00:00:00:00:00", REDFISHCMD_ON) != 40001;
        }
        --callersLeft;
      });
    }
    for (int t = 0; closers && t < 2; ++t) {
      threads.emplace_back([&, t] {
        for (; callersLeft.load() > 0; ++closes, std::this_thread::yield()) {
          t == 0 ? Lib().close(nullptr) : Lib().closeAll();
        }
      });
    }
    for (auto& t : threads) t.join();
    if (!closers) {
      auto paths = Paths(ReadLog(Env("EMULATOR_LOG")));
      EXPECT_EQ(std::count(paths.begin(), paths.end(), "GET /redfish/v1/Systems"), 1)
          << "discovered once";
    }
  }
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GE(closes.load(), 100);
  EXPECT_EQ(Posts(), 0);
}

namespace {

// Waits for a child for at most a minute; a child that hangs fails the test.
int ExitOf(pid_t child) {
  for (int i = 0; i < 600; ++i) {
    int status = 0;
    if (waitpid(child, &status, WNOHANG) == child)
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return -2;  // hung
}

// A child that makes one call of its own and reports it.
pid_t ForkCaller() {
  const pid_t child = fork();
  if (child == 0) {
    bool on = false;
    _exit(PowerState(on) == 0 && on ? 0 : 1);
  }
  return child;
}

}  // namespace

// A forked child starts with no connection or lock of its parent's: whether
// another thread of the parent was inside a call at fork(), or the parent was
// idle with a connection open. TSan cannot follow a fork in a threaded process.
TEST_F(EndToEnd, ForkedChildrenMakeCallsOfTheirOwn) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "fork in a threaded process";
#endif
  if (!P().knownVendor) GTEST_SKIP();
  bool on = false;
  ASSERT_EQ(PowerState(on), 0);
  Control("/faults", R"(["/redfish/v1/Systems/*?$select=PowerState:delay=3@1"])");
  std::atomic<pid_t> tid{0};
  std::thread inFlight([&] {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    bool state = false;
    EXPECT_EQ(PowerState(state), 0);
  });
  // Forks once the call waits for the BMC, in poll or on the pool's lock.
  for (std::string where;
       where.rfind("futex", 0) != 0 && where.find("poll") == std::string::npos;) {
    std::this_thread::yield();
    std::ifstream wchan("/proc/self/task/" + std::to_string(tid.load()) + "/wchan");
    wchan >> where;
  }
  EXPECT_EQ(ExitOf(ForkCaller()), 0) << "forked while a call was in flight";
  inFlight.join();

  std::vector<pid_t> children;
  for (int i = 0; i < 10; ++i) children.push_back(ForkCaller());
  for (pid_t child : children) EXPECT_EQ(ExitOf(child), 0) << "forked while idle";
  EXPECT_EQ(PowerState(on), 0) << "the parent's connection is its own";
}
