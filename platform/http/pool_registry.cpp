// Pools from birth to stop: the registry of live pools, and stopping one or
// all (unload, exit).
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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
  CloseConnection();
  PoolRegistry::JoinOrPark(callbackThread_);
  close(wakeFd_);
}

void PoolCore::StopNoJoin(std::vector<std::thread>& later) noexcept {
  MutexLock lock(mutex_);
  if (!stopped_) {
    stopped_ = true;
    const Failure f = StoppedFailure();
    for (auto& ex : queue_) Finish(*ex, nullptr, f);
    for (auto& [id, ex] : streams_) Finish(*ex, nullptr, f);
    queue_.clear();
    callbacksPending_ = 0;
    callbacks_.clear();
    Wake();
    callbackThreadWake_.notify_all();
    for (Exchange* w : waiters_) w->ended.notify_all();
    while (driving_) mutex_.Wait(driverGone_);
    CloseConnection();
  }
  if (callbackThread_.joinable()) later.push_back(std::move(callbackThread_));
}

void PoolCore::Stop() noexcept {
  std::vector<std::thread> later;
  StopNoJoin(later);
  for (auto& t : later) PoolRegistry::JoinOrPark(t);
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
