// A tiny library holding its own copy of the HTTP client, for the unload and
// exit tests: it leaves an exchange in flight and returns.
#include <cstdlib>
#include <cstring>

#include "platform/http/connection_pool.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using Tessel::Ref;
using namespace Tessel::Http;

namespace {

// The process-wide singleton a user keeps and never frees: only the
// library's finaliser stops its thread.
Ref<HttpConnectionPool>& Pool() {
  static auto* pool = [] {
    auto* p = new Ref<HttpConnectionPool>();
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(p);  // left behind on purpose when the library unloads
#endif
    return p;
  }();
  return *pool;
}

Ref<HttpUserAgent> Agent(int port) {
  Ref<ConnectionSpec> spec;
  CreateTCPConnectionSpec("127.0.0.1", port, false, nullptr, spec);
  if (!Pool()) Pool() = CreateHttp2ConnectionPool(spec.Get(), nullptr);
  return CreateHttpUserAgent(spec.Get(), nullptr, Pool().Get());
}

Ref<ClientRequest> MakeGet(const char* target) {
  Ref<ClientRequest> r;
  CreateHttpRequest(HttpMethod::Get, target, r);
  return r;
}

}  // namespace

// Leaves a request to /hang on the wire. With exitInCallback, a second one
// calls exit() from its completion callback, on the pool's callback thread.
extern "C" __attribute__((visibility("default"))) int StartExchangeInFlight(int port,
                                                                            int exitInCallback) {
  try {
    auto agent = Agent(port);
    static Ref<PendingExchange> hanging;
    agent->AsyncSendRequest(MakeGet("/hang").Get(), nullptr, hanging);
    Ref<ClientResponse> response;
    agent->SendRequest(MakeGet("/hello").Get(), response);  // /hang was handed over first
    if (exitInCallback) {
      Ref<PendingExchange> last;
      agent->AsyncSendRequest(
          MakeGet("/hello").Get(), [] { std::exit(0); }, last);
    }
    return 0;
  } catch (const std::exception&) {
    return -1;
  }
}
