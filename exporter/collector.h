#pragma once

// One BMC read at a time for any number of scrapes. A scrape that finds a
// read running waits for it, up to its own deadline, and shares its result;
// past the deadline it gets the last values, marked stale, and the read goes
// on to serve the next scrape. A result younger than the maximum age serves
// scrapes without a read, so that two Prometheus servers scraping the same
// host out of step do not double the BMC's load.
//
// Scrapes never block: the HTTP server's one thread begins a scrape, is told
// when each read completes, and answers the scrape once it is Ready.

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

  // A scrape under way: the read whose result it waits for (0: none, the
  // last result serves) and when it must be answered.
  struct Ticket {
    uint64_t read = 0;
    Clock::time_point deadline;
  };

  // Starts the reading thread, which makes a first read at once.
  Collector(ReadFunction read, Clock::duration maxAge);
  ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // Starts a scrape that must be answered by deadline, asking for a read
  // when the last one is too old. Never waits for the read.
  Ticket Begin(Clock::time_point deadline);
  // The scrape can be answered: its read completed, its deadline passed, or
  // the collector is stopping.
  bool Ready(const Ticket& ticket);
  // What it shows: its read's result, or the earlier values marked stale.
  Snapshot Finish(const Ticket& ticket);

  // Called after each read and when stopping, with the collector's lock
  // held: it may only signal (an eventfd write), never call back in. Null
  // stops the calls; once this returns, none is running.
  void OnChange(std::function<void()> listener);

  // Wakes every waiting scrape and ends the reading thread once its read is
  // done. False when that read is still running after wait (the thread is
  // then left to the process's exit).
  bool Stop(Clock::duration wait);

 private:
  void Run();

  ReadFunction read_;
  const Clock::duration maxAge_;
  std::mutex mutex_;
  std::condition_variable wanted_;    // a read is wanted, or stopping
  std::condition_variable finished_;  // the reading thread ended
  std::function<void()> listener_;
  bool readWanted_ = true;
  bool reading_ = false;
  bool stopping_ = false;
  bool ended_ = false;
  uint64_t completed_ = 0;
  Clock::time_point completedAt_;
  Snapshot snapshot_;
  std::thread thread_;
};
