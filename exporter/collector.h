#pragma once

// One BMC read at a time for any number of scrapes. A scrape that finds a
// read running waits for it, up to its own deadline, and shares its result;
// past the deadline it gets the last values, marked stale, and the read goes
// on to serve the next scrape. A result younger than the maximum age serves
// scrapes without a read, so that two Prometheus servers scraping the same
// host out of step do not double the BMC's load.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "snapshot.h"

class Collector {
 public:
  using Clock = std::chrono::steady_clock;
  using ReadFunction = std::function<ReadResult()>;

  // Starts the reading thread, which makes a first read at once.
  Collector(ReadFunction read, Clock::duration maxAge);
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // What a scrape that must answer by deadline shows.
  Snapshot Scrape(Clock::time_point deadline);

  // Wakes every waiting scrape and ends the reading thread once its read is
  // done. False when that read is still running after wait (the thread is
  // then left to the process's exit).
  bool Stop(Clock::duration wait);

 private:
  void Run();

  ReadFunction read_;
  const Clock::duration maxAge_;
  std::mutex mutex_;
  std::condition_variable wanted_;  // a read is wanted, or stopping
  std::condition_variable done_;    // a read completed, or stopping
  bool readWanted_ = true;
  bool reading_ = false;
  bool stopping_ = false;
  bool finished_ = false;
  uint64_t completed_ = 0;
  Clock::time_point completedAt_;
  Snapshot snapshot_;
  std::thread thread_;
};
