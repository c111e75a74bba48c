#pragma once

// Records handed over for the built-in sink's descriptor and not yet written.
// A call's traces wait here while other calls run, and leave with theirs in
// one write when the last running call ends, when they fill kSpoolBatch or
// when the oldest has waited kSpoolAgeUs: on a busy host it is the write, not
// the formatting, that a log costs, and a few large writes cost far less than
// one per call. A thread that hands records over while another writes leaves
// them to that writer (a group commit); a failure record, and everything
// before it, is written before its call goes on.
//
// The library has no thread of its own to keep the age limit, so records
// wait only while a sleeper is registered: a thread of the library asleep
// (the HTTP client's wait for an answer, see LogSleep) that wakes by their
// deadline and writes them, or, the last to leave, writes them anyway. With
// no sleeper, the thread that hands them over writes them. So the limit holds
// whatever the other calls wait for (a slow BMC, a lock).
//
// Commit and DrainSpool are called with the sink's lock held, so the
// descriptor stays open under a writer; the sink is only changed, and the
// process only exits, after a drain.
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tessel::Service::Logging {

constexpr size_t kSpoolBatch = 32 << 10;
constexpr int64_t kSpoolAgeUs = 50000;
// A writer slower than its callers makes them wait beyond this much.
constexpr size_t kSpoolLimit = 1 << 20;
// The deadline of an empty spool.
constexpr int64_t kNoDeadline = INT64_MAX;

int64_t MonotonicUs() noexcept;

// Made on first use. The sink makes it before itself, so that it is destroyed
// after the sink's destructor has written what it holds.
void MakeSpool();

// Hands `held`, then `text`, over for fd. They are written now when `now`
// (durable: also when another thread is the writer), else when the rule above
// says so.
void Commit(int fd, std::string_view held, std::string_view text, bool now);
// Writes whatever waits: the sink is about to change, or the process to end.
void DrainSpool(int fd);

// A call (an outermost batch) starts, or ends; true when records wait, which
// the last call out writes.
void CallStarted() noexcept;
bool CallEnded() noexcept;

// A sleeper registers before it sleeps and gets the time it must wake by; it
// leaves when it wakes, and is told whether it must write what waits: their
// deadline passed, or no sleeper is left to keep it.
int64_t SleeperEnters(int64_t nowUs) noexcept;
bool SleeperLeaves() noexcept;

// In a child of fork(): a fresh spool, with `calls` running (the forking
// thread's own call, if any); what the parent's spool held is the parent's to
// write.
void RenewSpoolInChild(int calls) noexcept;

}  // namespace Tessel::Service::Logging
