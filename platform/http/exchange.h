#pragma once

// One exchange of the HTTP client, as handed out for PendingExchange. Only
// platform/http/ includes it.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/http/wakeup.h"
#include "platform/tessel/http.h"

namespace Tessel::Http {

class PoolCore;

// Why an exchange failed; turned into an exception each time a waiter asks.
struct Failure {
  enum Kind { None, System, Timeout, InvalidArgument, Other };
  Kind kind = None;
  int error = 0;
  std::string message;

  [[noreturn]] void Throw() const;
};

// One request and its response. The waiter holds it through its handle; the
// pool holds it while it is queued or on a stream. Everything below the
// request is guarded by the pool's mutex (an HTTP/1.1 exchange has no pool
// and is only touched by the thread that waits for it).
class Exchange final : public PendingExchange {
 public:
  Exchange(Ref<PoolCore> core, const ClientRequest& request, CompletionCallback callback);
  ~Exchange() override;

  PoolCore* Core() const noexcept { return core_.Get(); }
  // Whether the request carries a body (and so a Content-Length).
  bool HasBody() const noexcept {
    return method == Post || method == Put || method == Patch ||
           (method == Delete && !body.empty());
  }

  // The request, copied: the caller may change or send it again.
  HttpMethod method;
  std::string target;
  std::vector<Header> headers;  // HTTP/2: names in lower case
  std::string body;
  CompletionCallback callback;

  enum class State { Queued, OnStream, Done, Cancelled };
  State state = State::Queued;
  int32_t streamId = 0;
  bool everSent = false;  // a byte of the request may have reached the server
  bool onWire = false;    // the current attempt's HEADERS were handed to the socket
  bool tooLarge = false;
  bool unsendable = false;  // nghttp2 would not frame its request: fails, never sent
  size_t bodySent = 0;      // of the current attempt
  int resends = 0;
  Wakeup ended;  // posted when it ends, or when its waiter is to lead
  // Read by its waiter without the mutex: set once it is Done (after the
  // result), and when the waiter is asked to take over the connection.
  std::atomic<bool> finished{false};
  std::atomic<bool> leadAsked{false};

  // Response under construction, then the result.
  int status = 0;
  std::vector<Header> responseHeaders;
  std::string responseBody;
  Ref<ClientResponse> response;
  Failure failure;

  // HTTP/1.1 only: the endpoint and limits of an agent without a pool.
  Ref<ConnectionSpec> h1Spec;
  int64_t h1ConnectTimeoutUs = 0;
  int64_t maxBodyBytes = 0;

  void GetResult(Ref<ClientResponse>& out) const;

 private:
  Ref<PoolCore> core_;
};

// Runs an exchange of an agent without a pool: HTTP/1.1, one connection,
// on the calling thread, until limitUs passes (then TimeoutException).
void RunHttp1(Exchange& exchange, int64_t limitUs);

}  // namespace Tessel::Http
