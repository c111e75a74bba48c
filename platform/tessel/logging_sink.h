#pragma once

// Where records go: the sink the host set, or the built-in one, whose
// destination and masking the environment chooses at its first message.
#include <unistd.h>

#include <memory>
#include <shared_mutex>
#include <string>

#include "platform/tessel/logging.h"

namespace Tessel::Service::Logging {

struct BuiltInConfig {
  enum class Kind { Stderr, Syslog, File, None };
  bool configured = false;
  Kind kind = Kind::Stderr;
  int fd = -1;
  bool mask = false;
  // The descriptor records go to, or -1 when they go to no descriptor.
  int Descriptor() const {
    if (kind == Kind::File) return fd;
    return kind == Kind::Stderr ? STDERR_FILENO : -1;
  }
};

struct SinkState {
  SinkState();
  // At unload or exit: a message logged later goes to standard error.
  ~SinkState();
  // Shared by every writer, so that records are written concurrently (one
  // write each keeps them whole); exclusive only to change the sink, so that
  // a file is never closed under a writer.
  std::shared_mutex lock;
  std::shared_ptr<const LogSink> custom;
  BuiltInConfig builtIn;
};

SinkState& Sink();

// What a held trace needs of the configuration, readable without the lock:
// kHoldable while the built-in sink writes to a descriptor and no other sink
// is set, kMasked when credentials are masked.
constexpr unsigned kHoldable = 1;
constexpr unsigned kMasked = 2;
unsigned HoldFlags() noexcept;

// Hands a message to the sink in use, configuring the built-in one first if
// it has not been yet.
void Deliver(const Logger& logger, int level, const std::string& message);

}  // namespace Tessel::Service::Logging
