#pragma once

// The core of an HTTP/2 pool (one connection, driven by whichever waiting
// thread leads) and the registry of live pools. Only platform/http/
// includes it. Its functions live by concern:
//   leader_follower.cpp  submitting, waiting, leading, the callback thread
//   socket_connect.cpp   opening the TCP connection
//   h2_session.cpp       the nghttp2 session on it and nghttp2's callbacks
//   pool_registry.cpp    construction, stopping, unload and fork

#include <nghttp2/nghttp2.h>
#include <poll.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/http/exchange.h"
#include "platform/tessel/logging.h"
#include "platform/tessel/thread_annotations.h"

namespace Tessel::Http {

// The client's log channel; none once the library is being unloaded.
Service::Logger* HttpLogger();
// Whether the library's finaliser ran: new exchanges then fail at once.
bool ClientUnloaded();
// How an exchange of a stopped pool fails.
Failure StoppedFailure();

class PoolCore;

// The live pools, so that unloading the library stops them all, and a child
// of fork() starts with none of its parent's connections, threads or locks.
class PoolRegistry {
 public:
  // False once the library is being unloaded: the pool starts stopped.
  static bool Add(PoolCore* pool) TESSEL_EXCLUDES(mutex_);
  static void Remove(PoolCore* pool) TESSEL_EXCLUDES(mutex_);
  // Stops every pool and joins their callback threads (unload, exit).
  static void StopAll() noexcept TESSEL_EXCLUDES(mutex_);
  // Joins a callback thread, or parks it when it is the calling one (a pool
  // dropped in its own callback): it then ends by itself, joined later.
  static void JoinOrPark(std::thread& thread) TESSEL_EXCLUDES(mutex_);
  // Joins the parked threads other than the calling one.
  static void JoinParked() TESSEL_EXCLUDES(mutex_);
  // Installs the fork() handlers below (once, when the library loads).
  static void InstallForkHandlers();

 private:
  // pthread_atfork handlers: the registry's mutex and every pool's are held
  // across fork(), so the child gets them in a known state.
  static void BeforeFork() TESSEL_NO_THREAD_SAFETY_ANALYSIS;
  static void AfterForkInParent() TESSEL_NO_THREAD_SAFETY_ANALYSIS;
  static void AfterForkInChild() TESSEL_NO_THREAD_SAFETY_ANALYSIS;

  // Never destroyed: no destructor of it may run at exit before the
  // finaliser or a late pool, nor in a child that keeps its parent's threads.
  static Mutex mutex_;
  static PoolCore* head_ TESSEL_GUARDED_BY(mutex_);
  static std::vector<std::thread>* parked_ TESSEL_GUARDED_BY(mutex_);
  static bool closed_ TESSEL_GUARDED_BY(mutex_);
  // A forked child's share of its parent's exchanges and threads, kept (and
  // reachable) but never touched: the threads waiting on them are not there.
  static std::vector<Ref<Exchange>>* parentExchanges_ TESSEL_GUARDED_BY(mutex_);
  static std::vector<std::thread>* parentThreads_ TESSEL_GUARDED_BY(mutex_);

  friend class PoolCore;
};

// One HTTP/2 connection of a pool. The pool's current connection takes new
// streams; once the server drains it (its GOAWAY, or the stream ids run out)
// it is set aside to finish the streams it has, while new requests go on a
// new current connection at once. Guarded by its pool's mutex, like an
// Exchange (and, like it, not annotated: the analysis cannot name that mutex).
struct PoolConnection {
  explicit PoolConnection(PoolCore* owner) : pool(owner) {}
  ~PoolConnection();  // closes the socket and drops the session, without a word

  PoolCore* const pool;
  int fd = -1;
  nghttp2_session* session = nullptr;  // once connected; null again once closed
  bool draining = false;               // no new stream goes on it
  int32_t goawayLastStream = -1;
  int brokenErrno = 0;  // a write failed outside the leader
  // Why nghttp2 ended the connection, if it did.
  std::string sessionError;
  std::string out;  // frames to write, from outOffset on
  size_t outOffset = 0;
  int64_t lastReadUs = 0;
  std::unordered_map<int32_t, Ref<Exchange>> streams;
};

// The shared state of one HTTP/2 pool. There is no I/O thread: a thread
// waiting for one of its exchanges becomes the leader when nobody drives the
// connection, and drives it (poll, read, write) until its own exchange ends,
// completing other exchanges on the way; then it hands the lead to another
// waiter. Exchanges with a completion callback are driven, when no caller
// waits, by a callback thread started with the first of them. The leader also
// drives the connections the server drains, until their streams end.
class PoolCore : public RefCounted {
 public:
  PoolCore(Ref<ConnectionSpec> spec, const Http2SvcConfig& config);
  ~PoolCore() override;

  const Http2SvcConfig& Config() const noexcept { return *config_; }
  ConnectionSpec* Spec() const noexcept { return spec_.Get(); }

  // Queues the exchange and, on a connection that is up, writes its request
  // at once. On a stopped pool it fails at once.
  void Submit(const Ref<Exchange>& exchange) TESSEL_EXCLUDES(mutex_);
  // Waits (leading or following) until the exchange ends or limitUs passes;
  // on time-out cancels it and throws TimeoutException.
  void Wait(Exchange& exchange, int64_t limitUs) TESSEL_EXCLUDES(mutex_);
  // Fails what is queued or in flight, closes the connection, ends the
  // callback thread.
  void Stop() noexcept TESSEL_EXCLUDES(mutex_);
  size_t ActiveCount() TESSEL_EXCLUDES(mutex_);
  bool InOwnCallback() const noexcept;

 private:
  // The current connection's; a drained one is set aside (draining_).
  enum class ConnectionState { None, Connecting, Up };
  friend class PoolRegistry;
  friend struct PoolConnection;

  // Connections being drained at most: beyond that, requests wait for one of
  // them to end rather than open ever more sockets to a server that keeps
  // draining them.
  static constexpr size_t kMaxDraining = 8;

  // leader_follower.cpp
  bool LeaderDone(const Exchange* own) const TESSEL_REQUIRES(mutex_);
  bool LeadOrFollow(Exchange& exchange, int64_t deadlineUs, std::vector<Ref<Exchange>>& wake)
      TESSEL_REQUIRES(mutex_);
  void LeadRound(const Exchange* own, int64_t deadlineUs) TESSEL_REQUIRES(mutex_);
  void Leave(Exchange& exchange, int64_t limitUs) TESSEL_REQUIRES(mutex_);
  void LeadForCallbacks() TESSEL_REQUIRES(mutex_);
  void DriveOnce(const Exchange* own, int64_t deadlineUs) TESSEL_REQUIRES(mutex_);
  void HandlePollResult(const pollfd* fds, PoolConnection* const* polled, size_t n)
      TESSEL_REQUIRES(mutex_);
  void HandOver() TESSEL_REQUIRES(mutex_);
  void RunCallbacks() TESSEL_REQUIRES(mutex_);
  void StartCallbackThread() TESSEL_REQUIRES(mutex_);
  void RunCallbackThread() TESSEL_EXCLUDES(mutex_);
  void Finish(Exchange& exchange, Ref<ClientResponse> response, Failure failure)
      TESSEL_REQUIRES(mutex_);
  void Requeue(const Ref<Exchange>& exchange) TESSEL_REQUIRES(mutex_);
  void Wake() TESSEL_REQUIRES(mutex_);
  bool ClaimWake() TESSEL_REQUIRES(mutex_);
  void SignalWake() const;

  // socket_connect.cpp
  void StartConnect() TESSEL_REQUIRES(mutex_);
  void ConnectProgress(bool socketReady) TESSEL_REQUIRES(mutex_);
  void ConnectFailed(int error) TESSEL_REQUIRES(mutex_);

  // h2_session.cpp
  void Connected() TESSEL_REQUIRES(mutex_);
  void SubmitQueued() TESSEL_REQUIRES(mutex_);
  bool CanSubmit() const TESSEL_REQUIRES(mutex_);
  bool Flush(PoolConnection& c) TESSEL_REQUIRES(mutex_);
  void FlushAll() TESSEL_REQUIRES(mutex_);
  void ReadAvailable(PoolConnection& c) TESSEL_REQUIRES(mutex_);
  void CheckIdleConnection() TESSEL_REQUIRES(mutex_);
  void ConnectionLost(PoolConnection& c, const std::string& why) TESSEL_REQUIRES(mutex_);
  void CloseConnection(PoolConnection& c) TESSEL_REQUIRES(mutex_);
  void TidyConnections() TESSEL_REQUIRES(mutex_);
  void CloseAll() TESSEL_REQUIRES(mutex_);
  PoolConnection* ConnectionOf(const Exchange& exchange) const TESSEL_REQUIRES(mutex_);
  size_t StreamCount() const TESSEL_REQUIRES(mutex_);
  // The current connection, if any, and the drained ones: a list on the stack,
  // so that none is freed under the caller (TidyConnections frees them).
  struct ConnectionList {
    PoolConnection* items[kMaxDraining + 1];
    size_t size = 0;
    PoolConnection** begin() { return items; }
    PoolConnection** end() { return items + size; }
  };
  ConnectionList Connections() const TESSEL_REQUIRES(mutex_);
  static int OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                      size_t namelen, const uint8_t* value, size_t valuelen, uint8_t, void* conn);
  static int OnData(nghttp2_session*, uint8_t, int32_t stream, const uint8_t* data, size_t len,
                    void* conn);
  static int OnFrameRecv(nghttp2_session*, const nghttp2_frame* frame, void* conn);
  static int OnFrameSend(nghttp2_session*, const nghttp2_frame* frame, void* conn);
  static int OnFrameNotSend(nghttp2_session*, const nghttp2_frame* frame, int error, void* conn);
  static int OnStreamClose(nghttp2_session*, int32_t stream, uint32_t error, void* conn);
  static ssize_t ReadBody(nghttp2_session*, int32_t stream, uint8_t* buf, size_t length,
                          uint32_t* flags, nghttp2_data_source* source, void*);

  // pool_registry.cpp
  void StopNoJoin(std::vector<std::thread>& later) noexcept TESSEL_EXCLUDES(mutex_);
  void ForgetParent(std::vector<Ref<Exchange>>& exchanges, std::vector<std::thread>& threads)
      TESSEL_REQUIRES(mutex_);

  // Fixed at construction (the eventfd is replaced in a forked child, which
  // has a single thread then).
  Ref<ConnectionSpec> spec_;
  Ref<Http2SvcConfig> config_;
  int wakeFd_ = -1;  // eventfd: interrupts the leader's poll

  Mutex mutex_;
  bool stopped_ TESSEL_GUARDED_BY(mutex_) = false;
  bool driving_ TESSEL_GUARDED_BY(mutex_) = false;  // a leader drives the connection
  std::condition_variable driverGone_;
  // wakeFd_ is (or is about to be) written and not yet drained.
  bool wakePending_ TESSEL_GUARDED_BY(mutex_) = false;

  ConnectionState conn_ TESSEL_GUARDED_BY(mutex_) = ConnectionState::None;
  std::unique_ptr<PoolConnection> current_ TESSEL_GUARDED_BY(mutex_);  // set unless None
  std::vector<std::unique_ptr<PoolConnection>> draining_ TESSEL_GUARDED_BY(mutex_);
  std::vector<std::string> addresses_ TESSEL_GUARDED_BY(mutex_);  // numeric, to try in order
  size_t addressIndex_ TESSEL_GUARDED_BY(mutex_) = 0;
  int64_t connectDeadlineUs_ TESSEL_GUARDED_BY(mutex_) = 0;
  std::vector<uint8_t> in_ TESSEL_GUARDED_BY(mutex_);  // the read buffer, shared

  std::deque<Ref<Exchange>> queue_ TESSEL_GUARDED_BY(mutex_);
  std::vector<Exchange*> waiters_ TESSEL_GUARDED_BY(mutex_);
  std::vector<Ref<Exchange>> callbacks_ TESSEL_GUARDED_BY(mutex_);
  // Waiters whose exchange the leader ended while reading: woken once it
  // lets go of the mutex, so they do not wake only to block on it.
  std::vector<Ref<Exchange>> toWake_ TESSEL_GUARDED_BY(mutex_);
  bool deferWake_ TESSEL_GUARDED_BY(mutex_) = false;

  // The thread that drives exchanges with callbacks while no caller waits.
  std::thread callbackThread_ TESSEL_GUARDED_BY(mutex_);
  bool callbackThreadStarted_ TESSEL_GUARDED_BY(mutex_) = false;
  bool callbackThreadWaits_ TESSEL_GUARDED_BY(mutex_) = false;
  int callbacksPending_ TESSEL_GUARDED_BY(mutex_) = 0;
  std::condition_variable callbackThreadWake_;

  // This pool's place in the registry.
  PoolCore* prev_ TESSEL_GUARDED_BY(PoolRegistry::mutex_) = nullptr;
  PoolCore* next_ TESSEL_GUARDED_BY(PoolRegistry::mutex_) = nullptr;
};

}  // namespace Tessel::Http
