#include "collector.h"

Collector::Collector(ReadFunction read, Clock::duration maxAge)
    : read_(std::move(read)), maxAge_(maxAge), thread_([this] { Run(); }) {}

Collector::~Collector() {
  if (thread_.joinable() && Stop(std::chrono::hours(1))) thread_.join();
}

Collector::Ticket Collector::Begin(Clock::time_point deadline) {
  std::lock_guard<std::mutex> lock(mutex_);
  Ticket ticket{0, deadline};
  const bool fresh = completed_ > 0 && Clock::now() - completedAt_ <= maxAge_;
  if (!fresh || reading_) {
    // The running read, or the next one.
    ticket.read = completed_ + 1;
    if (!reading_ && !readWanted_) {
      readWanted_ = true;
      wanted_.notify_one();
    }
  }
  return ticket;
}

bool Collector::Ready(const Ticket& ticket) {
  std::lock_guard<std::mutex> lock(mutex_);
  return completed_ >= ticket.read || stopping_ || Clock::now() >= ticket.deadline;
}

Snapshot Collector::Finish(const Ticket& ticket) {
  std::lock_guard<std::mutex> lock(mutex_);
  Snapshot snapshot = snapshot_;
  if (completed_ < ticket.read) snapshot.stale = true;
  return snapshot;
}

void Collector::OnChange(std::function<void()> listener) {
  std::lock_guard<std::mutex> lock(mutex_);
  listener_ = std::move(listener);
}

bool Collector::Stop(Clock::duration wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  stopping_ = true;
  wanted_.notify_all();
  if (listener_) listener_();
  if (!finished_.wait_for(lock, wait, [&] { return ended_; })) {
    thread_.detach();
    return false;
  }
  return true;
}

void Collector::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wanted_.wait(lock, [&] { return readWanted_ || stopping_; });
    if (stopping_) break;
    readWanted_ = false;
    reading_ = true;
    lock.unlock();
    const ReadResult result = read_();
    const double now = WallSeconds();
    lock.lock();
    ApplyRead(snapshot_, result, now);
    reading_ = false;
    ++completed_;
    completedAt_ = Clock::now();
    if (listener_) listener_();
  }
  ended_ = true;
  finished_.notify_all();
}
