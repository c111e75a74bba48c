// Leader/follower: a pool has no I/O thread. A thread waiting for one of its
// exchanges drives the connection while nobody else does, and sleeps on its
// exchange's condition variable otherwise; completion callbacks run on the
// thread that completed the exchange, or on the pool's callback thread.
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "platform/http/pool_core.h"

namespace Tessel::Http {
namespace {

constexpr int kMaxResends = 5;  // a server that keeps refusing a request gets it no more often
constexpr int64_t kIdleCheckUs = 20000;

// The pool whose completion callback the calling thread runs, if any.
thread_local const PoolCore* tCallbackPool = nullptr;

}  // namespace

size_t PoolCore::ActiveCount() {
  MutexLock lock(mutex_);
  return queue_.size() + StreamCount();
}

bool PoolCore::InOwnCallback() const noexcept { return tCallbackPool == this; }

// Only the leader polls, and it only lets go of the mutex to poll: holding
// the mutex with driving_ set means the leader is in (or about to enter)
// poll. One write per poll is enough; the leader drains it under the mutex.
void PoolCore::Wake() {
  if (driving_ && ClaimWake()) SignalWake();
}

bool PoolCore::ClaimWake() {
  if (wakePending_) return false;
  wakePending_ = true;
  return true;
}

void PoolCore::SignalWake() const {
  uint64_t one = 1;
  (void)!write(wakeFd_, &one, sizeof one);
}

void PoolCore::Submit(const Ref<Exchange>& ex) {
  if (ex->callback) PoolRegistry::JoinParked();
  bool wakeLeader = false;
  {
    MutexLock lock(mutex_);
    if (stopped_ || ClientUnloaded()) {
      ex->state = Exchange::State::Done;
      ex->failure = StoppedFailure();
      return;
    }
    if (conn_ == ConnectionState::Up && !driving_ &&
        System::GetMonotonicTime() - current_->lastReadUs > kIdleCheckUs) {
      CheckIdleConnection();
    }
    queue_.push_back(ex);
    if (ex->callback) {
      ++callbacksPending_;
      if (!callbackThreadStarted_) StartCallbackThread();
      callbackThreadWake_.notify_one();
    }
    if (conn_ == ConnectionState::Up) {
      SubmitQueued();
      // A leader polls: it sends this with everything else submitted while it
      // waited, in one send, instead of one send per caller. It is woken after
      // the mutex is let go, so that it does not wake only to wait for it.
      if (driving_) {
        wakeLeader = ClaimWake();
      } else if (!Flush(*current_) || current_->brokenErrno != 0) {
        Wake();
      }
    } else {
      Wake();  // a leader may have to connect
    }
  }
  if (wakeLeader) SignalWake();
}

namespace {

// Wakes the listed followers when it goes, after the pool's mutex is let go
// (it is declared before the lock): a follower woken under the mutex would
// preempt the leader only to sleep again on the mutex.
struct PostOnExit {
  std::vector<Ref<Exchange>> list;
  ~PostOnExit() {
    for (auto& w : list) w->ended.Post();
  }
};

}  // namespace

void PoolCore::Wait(Exchange& ex, int64_t limitUs) {
  using State = Exchange::State;
  const int64_t deadline =
      limitUs > INT64_MAX / 2 ? INT64_MAX : System::GetMonotonicTime() + limitUs;
  PostOnExit wake;
  {
    MutexLock lock(mutex_);
    if (ex.state == State::Cancelled) {
      throw TimeoutException("the exchange was cancelled by a time-out");
    }
    if (ex.state == State::Done) return;
    if (tCallbackPool == this) {
      throw Exception("cannot wait for an exchange of a pool in its own completion callback");
    }
    waiters_.push_back(&ex);
  }
  for (;;) {
    {
      MutexLock lock(mutex_);
      ex.leadAsked.store(false, std::memory_order_relaxed);
      if (LeadOrFollow(ex, deadline, wake.list)) {
        Leave(ex, limitUs);
        return;
      }
    }
    // A follower sleeps without the mutex. Its exchange mostly ends meanwhile,
    // and it then leaves without the mutex too: the leader has taken it off
    // the waiters. Asked to lead instead, or woken to write the log, it goes
    // round.
    {
      const Service::LogSleep logSleep;
      ex.ended.WaitUntil(logSleep.Until(deadline));
    }
    if (ex.finished.load(std::memory_order_acquire) &&
        !ex.leadAsked.load(std::memory_order_acquire)) {
      return;
    }
  }
}

// Leads while nobody else does; true when the wait is over (the exchange
// ended, the pool stopped, the deadline passed), false to follow.
bool PoolCore::LeadOrFollow(Exchange& ex, int64_t deadline, std::vector<Ref<Exchange>>& wake) {
  for (;;) {
    if (ex.state == Exchange::State::Done || stopped_) break;
    if (System::GetMonotonicTime() >= deadline) break;
    if (driving_) return false;
    LeadRound(&ex, deadline);
  }
  wake.insert(wake.end(), toWake_.begin(), toWake_.end());
  toWake_.clear();
  return true;
}

// A waiter leads until its own exchange ends; the callback thread until no
// exchange with a callback is left.
bool PoolCore::LeaderDone(const Exchange* own) const {
  return own != nullptr ? own->state == Exchange::State::Done : callbacksPending_ == 0;
}

// One round of driving the connection, and the callbacks it made due.
void PoolCore::LeadRound(const Exchange* own, int64_t deadline) {
  driving_ = true;
  DriveOnce(own, deadline);
  driving_ = false;
  if (stopped_) driverGone_.notify_all();
  RunCallbacks();
}

// The waiter leaves: off the waiters, the connection handed to another
// waiter if nobody drives it, and on time-out its exchange cancelled for good.
void PoolCore::Leave(Exchange& ex, int64_t limitUs) {
  auto waiter = std::find(waiters_.begin(), waiters_.end(), &ex);
  if (waiter != waiters_.end()) waiters_.erase(waiter);
  if (!driving_) HandOver();
  if (ex.state == Exchange::State::Done) return;
  const bool onStream = ex.state == Exchange::State::OnStream;
  ex.state = Exchange::State::Cancelled;
  if (ex.callback) --callbacksPending_;
  if (onStream) {
    PoolConnection* c = ConnectionOf(ex);
    if (c != nullptr && c->session != nullptr &&
        nghttp2_submit_rst_stream(c->session, NGHTTP2_FLAG_NONE, ex.streamId, NGHTTP2_CANCEL) ==
            0) {
      if (!Flush(*c)) Wake();
    }
  } else {
    auto it = std::find_if(queue_.begin(), queue_.end(),
                           [&](const Ref<Exchange>& q) { return q.Get() == &ex; });
    if (it != queue_.end()) queue_.erase(it);
  }
  throw TimeoutException("no response within " + std::to_string(limitUs / 1000) + " ms");
}

// The callback thread leads until no exchange with a callback is left.
void PoolCore::LeadForCallbacks() {
  while (!LeaderDone(nullptr) && !stopped_) {
    if (!driving_) {
      LeadRound(nullptr, INT64_MAX);
    } else {
      mutex_.Wait(callbackThreadWake_);
    }
  }
  for (auto& w : toWake_) w->ended.Post();
  toWake_.clear();
  if (!driving_) HandOver();
}

// The leader leaves: another waiter takes over the connection.
void PoolCore::HandOver() {
  if (stopped_ || (queue_.empty() && StreamCount() == 0)) return;
  for (Exchange* w : waiters_) {
    if (w->state != Exchange::State::Done) {
      w->leadAsked.store(true, std::memory_order_release);
      w->ended.Post();
      return;
    }
  }
  if (callbackThreadWaits_) callbackThreadWake_.notify_one();
}

// One round of the leader: connect or write what is due, poll (without the
// mutex) for the sockets or a wake-up, then act on what poll saw. The
// connections the server drains are polled too, until their streams end.
void PoolCore::DriveOnce(const Exchange* own, int64_t deadline) {
  using State = ConnectionState;
  TidyConnections();
  const bool mayConnect = draining_.size() < kMaxDraining;
  if (conn_ == State::None && !queue_.empty() && mayConnect) StartConnect();
  SubmitQueued();
  FlushAll();
  TidyConnections();
  // The connection went, or was drained, with requests left: the next round
  // opens another. Requests nghttp2 gave back while writing go out first.
  if (conn_ == State::None && !queue_.empty() && mayConnect) return;
  if (CanSubmit()) return;
  if (LeaderDone(own)) return;  // e.g. a connect that failed at once ended it

  pollfd fds[kMaxDraining + 2] = {{wakeFd_, POLLIN, 0}};
  PoolConnection* polled[kMaxDraining + 2] = {nullptr};
  nfds_t n = 1;
  for (PoolConnection* c : Connections()) {
    if (c->fd < 0) continue;
    short events = POLLIN;
    if (c == current_.get() && conn_ == State::Connecting) {
      events = POLLOUT;
    } else if (c->outOffset < c->out.size()) {
      events |= POLLOUT;
    }
    fds[n] = {c->fd, events, 0};
    polled[n++] = c;
  }
  int64_t until = deadline;
  if (conn_ == State::Connecting) until = std::min(until, connectDeadlineUs_);
  int timeoutMs = -1;
  if (until != INT64_MAX) {
    timeoutMs = static_cast<int>(std::min<int64_t>(
        INT_MAX, std::max<int64_t>(0, (until - System::GetMonotonicTime() + 999) / 1000)));
  }
  {
    std::vector<Ref<Exchange>> wake;
    wake.swap(toWake_);
    mutex_.Unlock();
    for (auto& w : wake) w->ended.Post();
  }  // nothing on the heap is held across the poll, where a fork() may find it
  int ready;
  {
    // Woken in time to write the log that other calls left to it.
    const Service::LogSleep logSleep;
    ready = poll(fds, n, logSleep.PollTimeoutMs(timeoutMs));
  }
  mutex_.Lock();
  if (ready < 0) return;
  deferWake_ = true;
  HandlePollResult(fds, polled, n);
  deferWake_ = false;
}

// Only the leader closes or replaces connections, so the ones it polled are
// still there, unless the pool stopped meanwhile.
void PoolCore::HandlePollResult(const pollfd* fds, PoolConnection* const* polled, size_t n) {
  if (fds[0].revents != 0) {
    uint64_t count;
    (void)!read(wakeFd_, &count, sizeof count);
    wakePending_ = false;
  }
  if (stopped_) return;
  for (size_t i = 1; i < n; ++i) {
    PoolConnection* c = polled[i];
    const short events = fds[i].revents;
    if (c->fd != fds[i].fd) continue;
    if (c == current_.get() && conn_ == ConnectionState::Connecting) {
      ConnectProgress(events != 0);  // may replace the current connection
      continue;
    }
    if (events & (POLLIN | POLLERR | POLLHUP)) ReadAvailable(*c);
    if (c->fd >= 0 && (events & POLLOUT)) Flush(*c);
  }
  TidyConnections();
}

void PoolCore::RunCallbacks() {
  if (callbacks_.empty()) return;
  std::vector<Ref<Exchange>> run;
  run.swap(callbacks_);
  mutex_.Unlock();
  for (auto& ex : run) {
    const PoolCore* outer = tCallbackPool;
    tCallbackPool = this;
    try {
      ex->callback();
    } catch (const std::exception& e) {
      TESSEL_LOG(HttpLogger(), 1, "completion callback for %1 threw: %2", spec_->ToString(),
                 e.what());
    } catch (...) {
      TESSEL_LOG(HttpLogger(), 1, "completion callback for %1 threw", spec_->ToString());
    }
    tCallbackPool = outer;
  }
  run.clear();
  mutex_.Lock();
}

void PoolCore::StartCallbackThread() {
  callbackThreadStarted_ = true;
  AddRef();  // the thread's own reference
  try {
    callbackThread_ = std::thread([this] { RunCallbackThread(); });
  } catch (...) {
    callbackThreadStarted_ = false;
    Release();  // the caller's exchange keeps this alive
  }
}

void PoolCore::RunCallbackThread() {
  pthread_setname_np(pthread_self(), "http-callback");
  {
    MutexLock lock(mutex_);
    for (;;) {
      while (!stopped_ && callbacksPending_ == 0) mutex_.Wait(callbackThreadWake_);
      if (stopped_) break;
      callbackThreadWaits_ = true;
      LeadForCallbacks();
      callbackThreadWaits_ = false;
    }
  }
  Release();
}

void PoolCore::Finish(Exchange& ex, Ref<ClientResponse> response, Failure failure) {
  if (ex.state == Exchange::State::Cancelled || ex.state == Exchange::State::Done) return;
  ex.state = Exchange::State::Done;
  ex.response = std::move(response);
  ex.failure = std::move(failure);
  ex.finished.store(true, std::memory_order_release);
  // Its waiter may leave without the mutex: it is no waiter from here on.
  auto waiter = std::find(waiters_.begin(), waiters_.end(), &ex);
  if (waiter != waiters_.end()) waiters_.erase(waiter);
  if (deferWake_) {
    toWake_.push_back(Ref<Exchange>(&ex));
  } else {
    ex.ended.Post();
  }
  if (ex.callback && !stopped_) {
    --callbacksPending_;
    callbacks_.push_back(Ref<Exchange>(&ex));
  }
}

void PoolCore::Requeue(const Ref<Exchange>& ex) {
  if (ex->state == Exchange::State::Cancelled) return;
  if (++ex->resends > kMaxResends) {
    Finish(*ex, nullptr,
           {Failure::Other, 0,
            "the server declined the request " + std::to_string(kMaxResends) +
                " times without processing it"});
    return;
  }
  ex->state = Exchange::State::Queued;
  ex->streamId = 0;
  ex->onWire = false;
  ex->status = 0;
  ex->responseHeaders.clear();
  ex->responseBody.clear();
  queue_.push_front(ex);
}

}  // namespace Tessel::Http
