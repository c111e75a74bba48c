#pragma once

// Internals of the HTTP client: the exchange shared between a waiter and the
// I/O thread, and the I/O thread of one pool. Only platform/http/ includes it.

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/http/connection_pool.h"

namespace Tessel::Http {

class PoolWorker;

// Why an exchange failed; turned into an exception each time a waiter asks.
struct Failure {
  enum Kind { None, System, Timeout, SslVerify, InvalidArgument, Other };
  Kind kind = None;
  int error = 0;
  std::string message;

  [[noreturn]] void Throw() const;
};

// How a transfer may use the pool's connection (see PoolWorker).
enum class Role {
  Plain,      // any: TLS, or a libcurl that reuses h2c connections correctly
  Connector,  // opens the h2c connection with prior knowledge
  Reuser,     // only streams on the connection the connector opened
};

// One request and its response. The waiter holds it through its handle and
// the I/O thread holds it while the transfer is queued, parked or in the
// multi handle; the last of the two frees it, so a cancelled or abandoned
// exchange can never complete into freed memory.
class Exchange final : public PendingExchange {
 public:
  Exchange(Ref<PoolWorker> worker, CompletionCallback callback);
  ~Exchange() override;

  // On the caller's thread, before the handover: copies what the transfer
  // needs out of the request. Throws InvalidArgumentException.
  void Prepare(const ClientRequest& request, const std::string& origin,
               const Http2SvcConfig& config, bool tls);

  PoolWorker* GetWorker() const noexcept { return worker_.Get(); }

  // Waiter side. Wait returns false if the exchange is still pending at the
  // deadline.
  bool Wait(int64_t limitUs);
  // Marks a pending exchange cancelled; false if it ended first.
  bool MarkCancelled();
  // The response, or throws the failure.
  void GetResult(Ref<ClientResponse>& response);

  // I/O thread side.
  CURL* GetEasy() const noexcept { return easy_; }
  bool IsCancelled();
  void SetRole(Role role);
  // True when the transfer may start over: it was not allowed to open a
  // connection before sending anything, or the server declared its stream
  // unprocessed.
  bool WantsRelaunch(CURLcode code) const noexcept;
  void PrepareRelaunch();
  // Ends the exchange from its transfer's result; returns its failure (kind
  // None for a response).
  Failure Complete(CURLcode code);
  // Ends the exchange without a transfer result (shutdown, a failed connect
  // it was waiting for).
  void Fail(Failure failure);
  void ReleaseEasy() noexcept;
  // A GOAWAY arrived on the connection this exchange's attempt uses.
  void NoteGoaway(const Exchange& reporter, int64_t lastStreamId) noexcept;
  // Both attempts reached the same connection.
  bool SameConnection(const Exchange& other) const noexcept;
  // Whether this attempt reached the connection with this local address.
  bool OnConnection(int localPort, const std::string& localIp) const noexcept {
    return attempted_ && localPort_ == localPort && localIp_ == localIp;
  }
  int LocalPort() const noexcept { return localPort_; }
  const std::string& LocalIp() const noexcept { return localIp_; }

  // Whether and where the I/O thread holds it (I/O thread only).
  enum class Where { Released, Held, Multi, Parked };
  Where where = Where::Released;
  size_t inFlightIndex = 0;

 private:
  enum class State { Pending, Done, Cancelled };

  static int OnPrereq(void* self, char* remoteIp, char* localIp, int remotePort, int localPort);
  static curl_socket_t OnOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
  static int OnDebug(CURL* easy, curl_infotype type, char* text, size_t size, void* self);
  static size_t OnHeader(char* data, size_t size, size_t count, void* self);
  static size_t OnBody(char* data, size_t size, size_t count, void* self);

  Failure Classify(CURLcode code);
  Failure ForThisExchange(Failure failure) const;
  void Publish(Ref<ClientResponse> response, Failure failure);

  Ref<PoolWorker> worker_;
  CompletionCallback callback_;

  // Owned by the caller's thread until the handover, by the I/O thread after.
  CURL* easy_ = nullptr;
  curl_slist* requestHeaders_ = nullptr;
  std::string requestBody_;
  char errorText_[CURL_ERROR_SIZE] = {};
  int64_t maxBodyBytes_ = 0;
  bool tls_ = false;
  Role role_ = Role::Plain;
  int resends_ = 0;  // relaunches after the server declared it unprocessed
  // The current attempt: whether it reached the wire, and where.
  bool attempted_ = false;
  bool mayHaveBeenSent_ = false;  // sticky over attempts
  bool resendBlocked_ = false;
  bool wantsConnection_ = false;
  bool gotResponse_ = false;
  bool bodyTooLarge_ = false;
  int64_t streamId_ = 0;     // HTTP/2 stream of the attempt, 0 if unknown
  int64_t goawayLast_ = -1;  // last stream id of a GOAWAY on its connection
  int localPort_ = 0;
  std::string localIp_;
  std::vector<Header> responseHeaders_;
  std::string responseBody_;

  // Shared between the waiter and the I/O thread.
  std::mutex mutex_;
  std::condition_variable ended_;
  State state_ = State::Pending;
  Ref<ClientResponse> response_;
  Failure failure_;
};

// The I/O thread of one pool and its libcurl multi handle. Requests reach it
// through a queue under a mutex; curl_multi_wakeup interrupts its poll.
//
// libcurl before 8.0.0 breaks an h2c connection when a transfer asking for
// prior knowledge reuses it. So on such a libcurl, for cleartext, exactly one
// transfer at a time (the connector) opens the connection with prior
// knowledge; the others wait for it (parked) and then run as reusers, which
// ask for plain HTTP/2 and are refused any socket of their own. A reuser that
// finds no connection ends before sending anything and starts over.
class PoolWorker : public RefCounted {
 public:
  PoolWorker(Ref<ConnectionSpec> spec, const Http2SvcConfig& config);
  ~PoolWorker() override;

  const std::string& GetOrigin() const noexcept { return origin_; }

  // Hands a prepared exchange to the I/O thread, starting it if needed. When
  // the pool is stopped the exchange fails at once.
  void Submit(Ref<Exchange> exchange);
  // Asks the I/O thread to drop an exchange already marked cancelled.
  void Cancel(Exchange* exchange);
  // Stops the thread: in-flight exchanges fail. Joins it unless called on it.
  void Stop();
  size_t GetActiveCount() const noexcept { return active_.load(std::memory_order_relaxed); }

  // Sets a transfer's per-socket hook: TCP_NODELAY and the ConnectionSpec's callback.
  void ConfigureSocket(CURL* easy);
  void LogCallbackFailure(const char* what) noexcept;
  // True on this pool's own I/O thread, which must never wait for an exchange.
  bool OnIoThread() const noexcept;
  // From a transfer's first pre-request callback: its connection is up.
  void OnConnected(Exchange* exchange) noexcept;
  // libcurl reported a GOAWAY while running `reporter` on its connection.
  void OnGoaway(const Exchange& reporter, int64_t lastStreamId) noexcept;

  // Stops every running pool; for the library's finaliser.
  static void StopAll() noexcept;

 private:
  enum class Link { None, Connecting, Up };

  void Run();
  void Launch(Exchange* exchange);
  void AddToMulti(Exchange* exchange, Role role);
  void DispatchParked();
  void RemoveFromMulti(Exchange* exchange);
  void Drop(Exchange* exchange);
  void ReapCompleted();
  void FailActive(const Failure& failure);
  void Join();
  static int OnSocket(void* self, curl_socket_t fd, curlsocktype purpose);

  Ref<ConnectionSpec> spec_;
  std::string origin_;
  CURLM* multi_ = nullptr;
  bool gated_ = false;  // the connector/reuser scheme is in use

  std::mutex mutex_;
  std::vector<Ref<Exchange>> queue_;
  std::vector<Ref<Exchange>> cancels_;
  bool started_ = false;
  bool stopping_ = false;
  bool wakePending_ = false;

  std::mutex joinMutex_;
  std::thread thread_;
  std::atomic<bool> finished_{false};

  // I/O thread only. Each exchange listed holds a reference.
  std::vector<Exchange*> inFlight_;
  std::deque<Exchange*> parked_;
  Link link_ = Link::None;
  Exchange* connector_ = nullptr;
  int linkPort_ = 0;  // local address of the link's connection
  std::string linkIp_;
  std::atomic<size_t> active_{0};

  // Guarded by the registry's mutex.
  PoolWorker* registryPrev_ = nullptr;
  PoolWorker* registryNext_ = nullptr;
  bool registered_ = false;
  friend class WorkerRegistry;
};

}  // namespace Tessel::Http
