// Unloading the library, or exiting, with an exchange in flight neither
// crashes nor hangs: pools are stopped and their callback threads joined first.
#include <dlfcn.h>
#include <spawn.h>

#include "http_test.h"

namespace http_test {
namespace {

TEST(Unload, DlcloseWithAnExchangeInFlight) {
  const std::string plugin = Env("HTTP_UNLOAD_PLUGIN");
  std::thread([] {}).join();  // a sanitizer's helper thread, if any, starts now
  const int baseline = ThreadCount();
  for (int round = 0; round < 2; ++round) {
    void* lib = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto start = reinterpret_cast<int (*)(int, int)>(dlsym(lib, "StartExchangeInFlight"));
    ASSERT_NE(start, nullptr);
    ASSERT_EQ(start(80, 0), 0);
    EXPECT_EQ(ThreadCount(), baseline) << "the client does its I/O on the caller's thread";
    ASSERT_EQ(dlclose(lib), 0);
    void* still = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(still, nullptr) << "not unloaded";
    if (still != nullptr) dlclose(still);
    EXPECT_EQ(ThreadCount(), baseline);
  }
}

// Runs the helper and returns what WaitChild says of it.
int RunHelper(std::vector<std::string> args) {
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -2;
  return WaitChild(pid);
}

TEST(Unload, ExitWithAnExchangeInFlight) {
  const std::string helper = Env("HTTP_EXIT_HELPER");
  EXPECT_EQ(RunHelper({helper, "80"}), 0);
  EXPECT_EQ(RunHelper({helper, "80", "callback"}), 0) << "exit() on the callback thread";
}

}  // namespace
}  // namespace http_test
