// Pools from birth to stop: the registry of live pools, stopping one or all
// (unload, exit), and fork(), after which the child owns none of what its
// parent's pools had.
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <type_traits>

#include "platform/http/pool_core.h"

namespace Tessel::Http {
namespace {

std::atomic<Service::Logger*> gLogger{nullptr};
std::atomic<bool> gUnloaded{false};

}  // namespace

Service::Logger* HttpLogger() {
  Service::Logger* logger = gLogger.load(std::memory_order_acquire);
  if (logger != nullptr || gUnloaded.load(std::memory_order_acquire)) return logger;
  Ref<Service::Logger> fresh = Service::CreateLogger("http");
  if (gLogger.compare_exchange_strong(logger, fresh.Get())) {
    fresh->AddRef();  // the finaliser releases it
    return fresh.Get();
  }
  return logger;
}

bool ClientUnloaded() { return gUnloaded.load(std::memory_order_acquire); }

Failure StoppedFailure() { return {Failure::Other, 0, "the HTTP client was stopped"}; }

static_assert(std::is_trivially_destructible<Mutex>::value,
              "the registry's mutex is never destroyed");
Mutex PoolRegistry::mutex_;
PoolCore* PoolRegistry::head_ = nullptr;
std::vector<std::thread>* PoolRegistry::parked_ = nullptr;  // allocated only while non-empty
bool PoolRegistry::closed_ = false;
std::vector<Ref<Exchange>>* PoolRegistry::parentExchanges_ = nullptr;
std::vector<std::thread>* PoolRegistry::parentThreads_ = nullptr;

bool PoolRegistry::Add(PoolCore* pool) {
  MutexLock lock(mutex_);
  if (closed_) return false;
  pool->next_ = head_;
  if (head_ != nullptr) head_->prev_ = pool;
  head_ = pool;
  return true;
}

void PoolRegistry::Remove(PoolCore* pool) {
  MutexLock lock(mutex_);
  if (pool->prev_ != nullptr) pool->prev_->next_ = pool->next_;
  if (pool->next_ != nullptr) pool->next_->prev_ = pool->prev_;
  if (head_ == pool) head_ = pool->next_;
  pool->prev_ = pool->next_ = nullptr;
}

void PoolRegistry::JoinOrPark(std::thread& thread) {
  if (!thread.joinable()) return;
  if (thread.get_id() != std::this_thread::get_id()) return thread.join();
  MutexLock lock(mutex_);
  if (parked_ == nullptr) parked_ = new std::vector<std::thread>();
  parked_->push_back(std::move(thread));
}

void PoolRegistry::JoinParked() {
  std::vector<std::thread> join;
  {
    MutexLock lock(mutex_);
    if (parked_ == nullptr) return;
    std::vector<std::thread> keep;
    for (auto& t : *parked_) {
      (t.get_id() == std::this_thread::get_id() ? keep : join).push_back(std::move(t));
    }
    delete parked_;
    parked_ = keep.empty() ? nullptr : new std::vector<std::thread>(std::move(keep));
  }
  for (auto& t : join) t.join();
}

void PoolRegistry::StopAll() noexcept {
  std::vector<std::thread> later;
  {
    MutexLock lock(mutex_);
    closed_ = true;
    // A pool whose destructor waits for this mutex is still whole here.
    for (PoolCore* pool = head_; pool != nullptr; pool = pool->next_) pool->StopNoJoin(later);
    if (parked_ != nullptr) {
      for (auto& t : *parked_) later.push_back(std::move(t));
      delete parked_;
      parked_ = nullptr;
    }
  }
  for (auto& t : later) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();  // exit() called in a callback: the process ends under this thread
    } else {
      t.join();
    }
  }
}

void PoolRegistry::InstallForkHandlers() {
  pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild);
}

// The mutexes are only held briefly, never across a wait or I/O that
// blocks, so taking them all lets fork() proceed soon.
void PoolRegistry::BeforeFork() {
  mutex_.Lock();
  for (PoolCore* pool = head_; pool != nullptr; pool = pool->next_) pool->mutex_.Lock();
}

void PoolRegistry::AfterForkInParent() {
  for (PoolCore* pool = head_; pool != nullptr; pool = pool->next_) pool->mutex_.Unlock();
  mutex_.Unlock();
}

// The child is a single thread, holding every mutex the registry knows (they
// are free once it lets go). Every pool starts afresh and opens its own
// connection; what belonged to the parent's threads is kept but not touched.
void PoolRegistry::AfterForkInChild() {
  if (parentExchanges_ == nullptr) parentExchanges_ = new std::vector<Ref<Exchange>>();
  if (parentThreads_ == nullptr) parentThreads_ = new std::vector<std::thread>();
  for (PoolCore* pool = head_; pool != nullptr; pool = pool->next_) {
    pool->ForgetParent(*parentExchanges_, *parentThreads_);
    pool->mutex_.Unlock();
  }
  if (parked_ != nullptr) {
    for (auto& t : *parked_) parentThreads_->push_back(std::move(t));
    delete parked_;
    parked_ = nullptr;
  }
  mutex_.Unlock();
}

PoolCore::PoolCore(Ref<ConnectionSpec> spec, const Http2SvcConfig& config)
    : spec_(std::move(spec)), config_(MakeRef<Http2SvcConfig>()) {
  config_->connectTimeoutUs = config.connectTimeoutUs;
  config_->syncSendTimeoutUs = config.syncSendTimeoutUs;
  config_->maxResponseBodyBytes = config.maxResponseBodyBytes;
  config_->maxConcurrentStreams = config.maxConcurrentStreams;
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) throw SystemException(errno, "eventfd");
  if (!PoolRegistry::Add(this)) stopped_ = true;  // the library is being unloaded
}

PoolCore::~PoolCore() {
  PoolRegistry::Remove(this);
  CloseAll();
  PoolRegistry::JoinOrPark(callbackThread_);
  close(wakeFd_);
}

void PoolCore::StopNoJoin(std::vector<std::thread>& later) noexcept {
  MutexLock lock(mutex_);
  if (!stopped_) {
    stopped_ = true;
    const Failure f = StoppedFailure();
    for (auto& ex : queue_) Finish(*ex, nullptr, f);
    for (PoolConnection* c : Connections()) {
      for (auto& [id, ex] : c->streams) Finish(*ex, nullptr, f);
    }
    queue_.clear();
    callbacksPending_ = 0;
    callbacks_.clear();
    Wake();
    callbackThreadWake_.notify_all();
    for (Exchange* w : waiters_) w->ended.Post();
    while (driving_) mutex_.Wait(driverGone_);
    CloseAll();
  }
  if (callbackThread_.joinable()) later.push_back(std::move(callbackThread_));
}

void PoolCore::Stop() noexcept {
  std::vector<std::thread> later;
  StopNoJoin(later);
  for (auto& t : later) PoolRegistry::JoinOrPark(t);
}

// In a forked child. The parent's exchanges fail here without a signal (a
// condition variable that had waiters at fork() must not be used again) and
// are kept; the socket is the parent's too, so it is closed without a word
// (no GOAWAY, no shutdown), and the session goes with it.
void PoolCore::ForgetParent(std::vector<Ref<Exchange>>& exchanges,
                            std::vector<std::thread>& threads) {
  const Failure f{Failure::Other, 0, "the exchange belongs to the parent of a fork()"};
  auto forget = [&](const Ref<Exchange>& ex) {
    if (ex->state == Exchange::State::Queued || ex->state == Exchange::State::OnStream) {
      ex->state = Exchange::State::Done;
      ex->failure = f;
    }
    exchanges.push_back(ex);
  };
  for (auto& ex : queue_) forget(ex);
  for (PoolConnection* c : Connections()) {
    for (auto& [id, ex] : c->streams) forget(ex);
  }
  for (auto& ex : callbacks_) forget(ex);
  for (auto& ex : toWake_) forget(ex);
  queue_.clear();
  callbacks_.clear();
  toWake_.clear();
  waiters_.clear();
  CloseAll();  // ends no exchange: it only drops the references kept above
  addresses_.clear();
  addressIndex_ = 0;
  driving_ = false;
  wakePending_ = false;
  deferWake_ = false;
  if (callbackThread_.joinable()) threads.push_back(std::move(callbackThread_));
  callbackThreadStarted_ = false;  // its reference to this pool stays: the pool is kept too
  callbackThreadWaits_ = false;
  callbacksPending_ = 0;
  new (&driverGone_) std::condition_variable();
  new (&callbackThreadWake_) std::condition_variable();
  close(wakeFd_);
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) stopped_ = true;  // without one a leader could not be woken
}

// When the library loads, before the code above the client installs any
// handler of its own: prepare handlers run in the reverse order, so ours
// take the pools' mutexes after theirs took a lock held while a pool is
// created or dropped (the registry's mutex comes after such locks).
__attribute__((constructor(101))) static void InstallForkHandlersOnLoad() {
  PoolRegistry::InstallForkHandlers();
}

// Unloading the library (dlclose) or exit must not leave a callback thread
// running code that is about to disappear, nor sockets open. Pools their
// users keep stay usable objects, but fail every later exchange.
__attribute__((destructor)) static void StopHttpClientsOnUnload() {
  gUnloaded.store(true, std::memory_order_release);
  PoolRegistry::StopAll();
  if (Service::Logger* logger = gLogger.exchange(nullptr)) logger->Release();
}

}  // namespace Tessel::Http
