#include "collector.h"

Collector::Collector(ReadFunction read, Clock::duration maxAge)
    : read_(std::move(read)), maxAge_(maxAge), thread_([this] { Run(); }) {}

Collector::~Collector() {
  if (thread_.joinable() && Stop(std::chrono::hours(1))) thread_.join();
}

Snapshot Collector::Scrape(Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  const bool fresh = completed_ > 0 && Clock::now() - completedAt_ <= maxAge_;
  if (!fresh || reading_) {
    // The running read, or the next one.
    const uint64_t target = completed_ + 1;
    if (!reading_ && !readWanted_) {
      readWanted_ = true;
      wanted_.notify_one();
    }
    done_.wait_until(lock, deadline, [&] { return completed_ >= target || stopping_; });
    if (completed_ < target) {
      Snapshot late = snapshot_;
      late.stale = true;
      return late;
    }
  }
  return snapshot_;
}

bool Collector::Stop(Clock::duration wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  stopping_ = true;
  wanted_.notify_all();
  done_.notify_all();
  if (!done_.wait_for(lock, wait, [&] { return finished_; })) {
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
    done_.notify_all();
  }
  finished_ = true;
  done_.notify_all();
}
