#pragma once

// Internals of the HTTP client: an exchange, and the core of an HTTP/2 pool
// (one connection driven by whichever waiting thread leads). Only
// platform/http/ includes it.

#include <nghttp2/nghttp2.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/tessel/http.h"

namespace Tessel::Http {

// "localhost" and names under it are this machine's loopback whatever the
// resolver says: a minimal root may have no /etc/hosts at all. Gives the
// loopback literals to connect to (IPv4 first), or none for any other name.
inline std::vector<const char*> LoopbackLiterals(const std::string& host) {
  std::string lower;
  for (char c : host) lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  const std::string suffix = ".localhost";
  const bool local = lower == "localhost" ||
                     (lower.size() > suffix.size() &&
                      lower.compare(lower.size() - suffix.size(), suffix.size(), suffix) == 0);
  if (!local) return {};
  return {"127.0.0.1", "::1"};
}

// The numeric addresses to connect to for a spec, as raw sockaddr bytes,
// IPv4 first; 0, or getaddrinfo's error when none resolved.
int ResolveAddresses(const ConnectionSpec& spec, std::vector<std::string>& out);

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
  size_t bodySent = 0;  // of the current attempt
  int resends = 0;
  bool waited = false;  // a thread waits for it (a follower, or the leader)
  std::condition_variable ended;

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

// The shared state of one HTTP/2 pool. There is no I/O thread: a thread
// waiting for one of its exchanges becomes the leader when nobody drives the
// connection, and drives it (poll, read, write) until its own exchange ends,
// completing other exchanges on the way; then it hands the lead to another
// waiter. Exchanges with a completion callback are driven, when no caller
// waits, by a helper thread started with the first of them.
class PoolCore : public RefCounted {
 public:
  PoolCore(Ref<ConnectionSpec> spec, const Http2SvcConfig& config);
  ~PoolCore() override;

  const Http2SvcConfig& Config() const noexcept { return *config_; }
  ConnectionSpec* Spec() const noexcept { return spec_.Get(); }

  // Queues the exchange and, on a connection that is up, writes its request
  // at once. On a stopped pool it fails at once.
  void Submit(const Ref<Exchange>& exchange);
  // Waits (leading or following) until the exchange ends or limitUs passes;
  // on time-out cancels it and throws TimeoutException.
  void Wait(Exchange& exchange, int64_t limitUs);
  // Fails what is queued or in flight, closes the connection, ends the helper.
  void Stop() noexcept;
  // Stop without joining the helper thread, which is added to `later`.
  void StopNoJoin(std::vector<std::thread>& later) noexcept;
  size_t ActiveCount();
  bool InOwnCallback() const noexcept;

  static void StopAll() noexcept;

 private:
  enum class Conn { None, Connecting, Up, Draining };
  using Lock = std::unique_lock<std::mutex>;

  bool DriveOnce(Lock& lock, int64_t deadlineUs, const std::function<bool()>& done);
  void Lead(Lock& lock, const std::function<bool()>& done, int64_t deadlineUs,
            std::condition_variable& cv);
  void HandOver();
  void RunCallbacks(Lock& lock);
  void Helper();

  void StartConnect();
  void Connected();
  void ConnectFailed(int error);
  void SubmitQueued();
  bool Flush();
  void ReadAvailable();
  void ConnectionLost(const std::string& why);
  void CloseConnection();
  void Requeue(const Ref<Exchange>& exchange);
  void Finish(Exchange& exchange, Ref<ClientResponse> response, Failure failure);
  void Wake();
  bool ClaimWake();
  void SignalWake();
  void CheckIdleConnection();

  static int OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                      size_t namelen, const uint8_t* value, size_t valuelen, uint8_t, void* self);
  static int OnData(nghttp2_session*, uint8_t, int32_t stream, const uint8_t* data, size_t len,
                    void* self);
  static int OnFrameRecv(nghttp2_session*, const nghttp2_frame* frame, void* self);
  static int OnFrameSend(nghttp2_session*, const nghttp2_frame* frame, void* self);
  static int OnStreamClose(nghttp2_session*, int32_t stream, uint32_t error, void* self);
  static ssize_t ReadBody(nghttp2_session*, int32_t stream, uint8_t* buf, size_t length,
                          uint32_t* flags, nghttp2_data_source* source, void* self);

  Ref<ConnectionSpec> spec_;
  Ref<Http2SvcConfig> config_;

  std::mutex mutex_;
  bool stopped_ = false;
  bool driving_ = false;
  std::condition_variable driverGone_;
  int wake_ = -1;             // eventfd: interrupts the leader's poll
  bool wakePending_ = false;  // wake_ is (or is about to be) written and not yet drained

  Conn conn_ = Conn::None;
  int fd_ = -1;
  std::vector<std::string> addresses_;  // numeric, to try in order
  size_t addressIndex_ = 0;
  int64_t connectDeadline_ = 0;
  nghttp2_session* session_ = nullptr;
  int32_t goawayLast_ = -1;
  int brokenErrno_ = 0;       // a write failed outside the leader
  std::string sessionError_;  // why nghttp2 ended the connection, if it did
  std::string out_;
  size_t outOff_ = 0;
  int64_t lastRead_ = 0;
  std::vector<uint8_t> in_;

  std::deque<Ref<Exchange>> queue_;
  std::unordered_map<int32_t, Ref<Exchange>> streams_;
  std::vector<Exchange*> waiters_;
  std::vector<Ref<Exchange>> callbacks_;
  // Waiters whose exchange the leader ended while reading: woken once it
  // lets go of the mutex, so they do not wake only to block on it.
  std::vector<Ref<Exchange>> toWake_;
  bool deferWake_ = false;

  // The helper thread for exchanges with callbacks.
  std::thread helper_;
  bool helperStarted_ = false;
  int callbacksPending_ = 0;
  bool helperWaiting_ = false;
  std::condition_variable helperCv_;

  // Registry of live pools, for unload (guarded by the registry's mutex).
  PoolCore* prev_ = nullptr;
  PoolCore* next_ = nullptr;
  friend struct Registry;
};

}  // namespace Tessel::Http
