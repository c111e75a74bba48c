// The I/O thread of a pool, the registry of running pools, and the
// finaliser that stops them before the library's code goes away.
#include "platform/http/pool_worker.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <type_traits>

#include "platform/tessel/logging.h"

namespace Tessel::Http {
namespace {

// Longest sleep of the I/O thread when libcurl has no timer of its own; new
// work and stop requests wake it at once anyway.
constexpr int kIdlePollMs = 1000;

// Globals here are trivially destructible on purpose: exit runs C++
// destructors before the finaliser below, and I/O threads may still run then.
std::atomic<Service::Logger*> g_logger{nullptr};
std::atomic<bool> g_unloaded{false};

Service::Logger* Log() {
  Service::Logger* logger = g_logger.load(std::memory_order_acquire);
  if (logger != nullptr || g_unloaded.load(std::memory_order_acquire)) return logger;
  Ref<Service::Logger> fresh = Service::CreateLogger("http");
  if (g_logger.compare_exchange_strong(logger, fresh.Get())) {
    fresh->AddRef();  // dropped by the finaliser
    return fresh.Get();
  }
  return logger;
}

void InitCurlOnce() {
  // Function-local static: initialised once even when many threads race here.
  static const char* const problem = []() -> const char* {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return "curl_global_init failed";
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    if ((info->features & CURL_VERSION_HTTP2) == 0) return "libcurl was built without HTTP/2";
    // The pre-request callback, on which the rule against resending relies.
    if (info->version_num < 0x075000) return "libcurl older than 7.80.0";
    return nullptr;
  }();
  if (problem != nullptr) throw Exception(problem);
}

thread_local const PoolWorker* t_ioWorker = nullptr;  // the worker this thread runs

Failure StoppedFailure() {
  return {Failure::Other, 0, "the HTTP client was stopped before the exchange ended"};
}

}  // namespace

// Every pool whose thread was started and not yet joined, in a list threaded
// through the workers themselves; each listed worker holds a reference.
class WorkerRegistry {
 public:
  static_assert(std::is_trivially_destructible_v<std::mutex>);

  // False once the library is being unloaded.
  static bool Add(PoolWorker* worker) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return false;
    // Its destructor is registered now, after curl_global_init, so at exit it
    // runs before the TLS library's own exit-time cleanup, while connections
    // still work. Being a static object, it is tied to this library and also
    // runs when the library is unloaded.
    struct StopAtExit {
      ~StopAtExit() { PoolWorker::StopAll(); }
    };
    static StopAtExit stopAtExit;
    worker->AddRef();
    worker->registryNext_ = head_;
    if (head_ != nullptr) head_->registryPrev_ = worker;
    head_ = worker;
    worker->registered_ = true;
    return true;
  }

  static void Remove(PoolWorker* worker) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!worker->registered_) return;
      Unlink(worker);
    }
    worker->Release();  // after the lock: it may be the last reference
  }

  // Threads that stopped after their pool was dropped on the thread itself.
  // Cheap when there are none: Submit asks on every request.
  static std::vector<Ref<PoolWorker>> Finished() {
    std::vector<Ref<PoolWorker>> done;
    if (!someFinished_.load(std::memory_order_acquire)) return done;
    std::lock_guard<std::mutex> lock(mutex_);
    someFinished_.store(false, std::memory_order_relaxed);
    for (PoolWorker* w = head_; w != nullptr; w = w->registryNext_) {
      if (w->finished_.load(std::memory_order_acquire)) done.emplace_back(w);
    }
    return done;
  }

  static void NoteFinished() { someFinished_.store(true, std::memory_order_release); }

  // Takes every listed worker, with its reference, and refuses new ones.
  static std::vector<PoolWorker*> Close() {
    std::vector<PoolWorker*> all;
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    while (head_ != nullptr) {
      all.push_back(head_);
      Unlink(head_);
    }
    return all;
  }

 private:
  static void Unlink(PoolWorker* w) {
    if (w->registryPrev_ != nullptr) w->registryPrev_->registryNext_ = w->registryNext_;
    if (w->registryNext_ != nullptr) w->registryNext_->registryPrev_ = w->registryPrev_;
    if (head_ == w) head_ = w->registryNext_;
    w->registryPrev_ = w->registryNext_ = nullptr;
    w->registered_ = false;
  }

  static inline std::mutex mutex_;
  static inline PoolWorker* head_ = nullptr;
  static inline bool closed_ = false;
  static inline std::atomic<bool> someFinished_{false};
};

PoolWorker::PoolWorker(Ref<ConnectionSpec> spec, const Http2SvcConfig& config)
    : spec_(std::move(spec)), origin_(spec_->ToString()) {
  InitCurlOnce();
  multi_ = curl_multi_init();
  if (multi_ == nullptr) throw Exception("libcurl could not create a multi handle");
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
  // One connection per pool: every request is a stream on it.
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, 1L);
  curl_multi_setopt(multi_, CURLMOPT_MAX_CONCURRENT_STREAMS,
                    static_cast<long>(config.maxConcurrentStreams));
  // Fixed in libcurl 8.0.0: reusing an h2c connection with prior knowledge.
  gated_ = !spec_->IsTls() && curl_version_info(CURLVERSION_NOW)->version_num < 0x080000;
}

PoolWorker::~PoolWorker() {
  // The registry holds a reference until the thread is joined, so only a
  // pool that never started (or whose thread finished) gets here.
  if (multi_ != nullptr) curl_multi_cleanup(multi_);
}

void PoolWorker::ConfigureSocket(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_SOCKOPTFUNCTION, &PoolWorker::OnSocket);
  curl_easy_setopt(easy, CURLOPT_SOCKOPTDATA, this);
}

int PoolWorker::OnSocket(void* self, curl_socket_t fd, curlsocktype purpose) {
  if (purpose != CURLSOCKTYPE_IPCXN) return CURL_SOCKOPT_OK;
  int one = 1;
  // Requests are small and latency-bound: never hold a segment back.
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  auto* worker = static_cast<PoolWorker*>(self);
  const SocketCallback& callback = worker->spec_->GetSocketCallback();
  if (!callback) return CURL_SOCKOPT_OK;
  try {
    System::TCPClientSocket socket(fd);
    callback(&socket);
  } catch (const std::exception& e) {
    Service::LogInternal(Log(), 1, "socket callback for %1 failed: %2", worker->origin_, e.what());
    return CURL_SOCKOPT_ERROR;
  } catch (...) {
    Service::LogInternal(Log(), 1, "socket callback for %1 failed", worker->origin_);
    return CURL_SOCKOPT_ERROR;
  }
  return CURL_SOCKOPT_OK;
}

bool PoolWorker::OnIoThread() const noexcept { return t_ioWorker == this; }

void PoolWorker::LogCallbackFailure(const char* what) noexcept {
  Service::LogInternal(Log(), 1, "completion callback for %1 threw: %2", origin_, what);
}

void PoolWorker::Submit(Ref<Exchange> exchange) {
  bool accepted = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stopping_ && !started_) {
      if (WorkerRegistry::Add(this)) {
        try {
          std::lock_guard<std::mutex> joinLock(joinMutex_);
          thread_ = std::thread([this] { Run(); });
          started_ = true;
        } catch (...) {
          WorkerRegistry::Remove(this);
          stopping_ = true;
        }
      } else {
        stopping_ = true;  // the library is being unloaded
      }
    }
    if (!stopping_) {
      active_.fetch_add(1, std::memory_order_relaxed);
      queue_.push_back(std::move(exchange));
      accepted = true;
      if (!wakePending_) {
        // One wakeup covers everything queued until the thread drains the queue.
        wakePending_ = true;
        curl_multi_wakeup(multi_);
      }
    }
  }
  if (!accepted) {
    exchange->Fail(StoppedFailure());
    return;
  }
  // Join threads of pools that were dropped on their own thread.
  for (auto& w : WorkerRegistry::Finished()) {
    if (w.Get() != this) w->Join();
  }
}

void PoolWorker::Cancel(Exchange* exchange) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_) return;  // the thread drops everything on its way out
  cancels_.push_back(Ref<Exchange>(exchange));
  if (!wakePending_) {
    wakePending_ = true;
    curl_multi_wakeup(multi_);
  }
}

void PoolWorker::Stop() {
  bool started = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    started = started_;
    if (!stopping_) {
      stopping_ = true;
      if (started) curl_multi_wakeup(multi_);
    }
  }
  if (started) Join();
}

void PoolWorker::Join() {
  {
    std::lock_guard<std::mutex> lock(joinMutex_);
    if (!thread_.joinable()) return;
    // Never join a thread from itself: this happens when the last reference
    // to a pool goes away in one of its own completion callbacks. The thread
    // ends by itself; a later Submit on any pool or the finaliser joins it.
    if (thread_.get_id() == std::this_thread::get_id()) return;
    thread_.join();
  }
  WorkerRegistry::Remove(this);
}

void PoolWorker::StopAll() noexcept {
  for (PoolWorker* w : WorkerRegistry::Close()) {
    {
      std::lock_guard<std::mutex> lock(w->mutex_);
      if (!w->stopping_) {
        w->stopping_ = true;
        curl_multi_wakeup(w->multi_);
      }
    }
    std::unique_lock<std::mutex> lock(w->joinMutex_);
    if (w->thread_.joinable() && w->thread_.get_id() == std::this_thread::get_id()) {
      // exit() called from a completion callback: the process ends under this
      // thread, which must not wait for itself. The worker stays referenced.
      w->thread_.detach();
      continue;
    }
    if (w->thread_.joinable()) w->thread_.join();
    lock.unlock();
    w->Release();
  }
}

void PoolWorker::Run() {
  pthread_setname_np(pthread_self(), "http-io");  // for ps, top and debuggers
  t_ioWorker = this;
  std::vector<Ref<Exchange>> incoming;
  std::vector<Ref<Exchange>> cancels;
  for (;;) {
    bool stop = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      incoming.swap(queue_);
      cancels.swap(cancels_);
      wakePending_ = false;
      stop = stopping_;
    }
    for (auto& exchange : cancels) Drop(exchange.Get());
    cancels.clear();
    for (auto& exchange : incoming) {
      if (stop) {
        exchange->Fail(StoppedFailure());
        active_.fetch_sub(1, std::memory_order_relaxed);
      } else if (exchange->IsCancelled()) {
        active_.fetch_sub(1, std::memory_order_relaxed);
      } else {
        exchange->AddRef();  // the I/O thread's reference, dropped in Drop
        exchange->where = Exchange::Where::Held;
        Launch(exchange.Get());
      }
    }
    incoming.clear();
    if (stop) break;

    int running = 0;
    curl_multi_perform(multi_, &running);
    ReapCompleted();
    DispatchParked();
    curl_multi_poll(multi_, nullptr, 0, kIdlePollMs, nullptr);
  }
  if (!inFlight_.empty() || !parked_.empty()) {
    Service::LogInternal(Log(), 2, "stopping the HTTP client of %1 with %2 exchanges in flight",
                         origin_, inFlight_.size() + parked_.size());
  }
  FailActive(StoppedFailure());
  curl_multi_cleanup(multi_);
  multi_ = nullptr;
  finished_.store(true, std::memory_order_release);
  WorkerRegistry::NoteFinished();
}

void PoolWorker::Launch(Exchange* exchange) {
  if (!gated_) return AddToMulti(exchange, Role::Plain);
  switch (link_) {
    case Link::Up:
      return AddToMulti(exchange, Role::Reuser);
    case Link::Connecting:
      exchange->where = Exchange::Where::Parked;
      parked_.push_back(exchange);
      return;
    case Link::None:
      link_ = Link::Connecting;
      connector_ = exchange;
      return AddToMulti(exchange, Role::Connector);
  }
}

void PoolWorker::AddToMulti(Exchange* exchange, Role role) {
  CURLMcode code = CURLM_OK;
  try {
    exchange->SetRole(role);
    code = curl_multi_add_handle(multi_, exchange->GetEasy());
  } catch (const std::exception&) {
    code = CURLM_INTERNAL_ERROR;
  }
  if (code != CURLM_OK) {
    exchange->Fail({Failure::Other, 0, curl_multi_strerror(code)});
    Drop(exchange);
    return;
  }
  exchange->where = Exchange::Where::Multi;
  exchange->inFlightIndex = inFlight_.size();
  inFlight_.push_back(exchange);
}

// Parked exchanges go once the connector's connection is up, or one of them
// becomes the next connector when there is none.
void PoolWorker::DispatchParked() {
  while (!parked_.empty() && link_ != Link::Connecting) {
    Exchange* exchange = parked_.front();
    parked_.pop_front();
    exchange->where = Exchange::Where::Held;
    Launch(exchange);
  }
}

void PoolWorker::OnConnected(Exchange* exchange) noexcept {
  if (exchange == connector_) {
    connector_ = nullptr;
    link_ = Link::Up;
    linkPort_ = exchange->LocalPort();
    linkIp_ = exchange->LocalIp();
  }
}

void PoolWorker::OnGoaway(const Exchange& reporter, int64_t lastStreamId) noexcept {
  for (Exchange* exchange : inFlight_) exchange->NoteGoaway(reporter, lastStreamId);
  if (link_ == Link::Up && reporter.OnConnection(linkPort_, linkIp_)) {
    // No new streams on it: the next exchange opens the next connection.
    link_ = Link::None;
  }
}

void PoolWorker::RemoveFromMulti(Exchange* exchange) {
  curl_multi_remove_handle(multi_, exchange->GetEasy());
  Exchange* last = inFlight_.back();
  inFlight_[exchange->inFlightIndex] = last;
  last->inFlightIndex = exchange->inFlightIndex;
  inFlight_.pop_back();
  exchange->where = Exchange::Where::Held;
}

// Lets go of an exchange wherever the I/O thread holds it (if it still does),
// freeing its transfer here, on the thread that used it.
void PoolWorker::Drop(Exchange* exchange) {
  switch (exchange->where) {
    case Exchange::Where::Multi:
      RemoveFromMulti(exchange);
      break;
    case Exchange::Where::Parked:
      parked_.erase(std::find(parked_.begin(), parked_.end(), exchange));
      break;
    case Exchange::Where::Held:
      break;
    case Exchange::Where::Released:
      return;  // a late cancel
  }
  if (exchange == connector_) {
    // Its connect is abandoned; a parked exchange takes over.
    connector_ = nullptr;
    link_ = Link::None;
  }
  exchange->where = Exchange::Where::Released;
  exchange->ReleaseEasy();
  active_.fetch_sub(1, std::memory_order_relaxed);
  exchange->Release();
}

void PoolWorker::ReapCompleted() {
  int left = 0;
  while (CURLMsg* msg = curl_multi_info_read(multi_, &left)) {
    if (msg->msg != CURLMSG_DONE) continue;
    CURL* easy = msg->easy_handle;
    const CURLcode result = msg->data.result;
    char* priv = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &priv);
    auto* exchange = reinterpret_cast<Exchange*>(priv);
    if (exchange->WantsRelaunch(result)) {
      // Nothing of it was processed; its connection is gone or going.
      RemoveFromMulti(exchange);
      if (link_ == Link::Up) link_ = Link::None;
      exchange->PrepareRelaunch();
      Launch(exchange);
      continue;
    }
    Failure failure = exchange->Complete(result);
    const bool connectFailed = exchange == connector_;
    Drop(exchange);
    // The parked exchanges were waiting for that connection.
    while (connectFailed && !parked_.empty()) {
      Exchange* parked = parked_.front();
      parked->Fail(failure);
      Drop(parked);
    }
  }
}

void PoolWorker::FailActive(const Failure& failure) {
  while (!inFlight_.empty() || !parked_.empty()) {
    Exchange* exchange = !inFlight_.empty() ? inFlight_.back() : parked_.back();
    exchange->Fail(failure);
    Drop(exchange);
  }
}

// Unloading the library (dlclose) or exit must not leave an I/O thread
// running code that is about to disappear. Pools their users keep stay
// usable objects, but fail every later exchange.
__attribute__((destructor)) static void StopHttpClientsOnUnload() {
  PoolWorker::StopAll();
  g_unloaded.store(true, std::memory_order_release);
  if (Service::Logger* logger = g_logger.exchange(nullptr)) logger->Release();
}

}  // namespace Tessel::Http
