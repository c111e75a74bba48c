// Exits with an exchange in flight; the unload test checks it ends cleanly.
//   exit_helper PORT [callback]
#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" int StartExchangeInFlight(int port, int exitInCallback);

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const bool fromCallback = argc > 2 && std::strcmp(argv[2], "callback") == 0;
  if (StartExchangeInFlight(std::atoi(argv[1]), fromCallback) != 0) return 3;
  if (fromCallback) {
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));  // the callback exits
  }
  return 0;
}
