#pragma once

#include <cstddef>

#include "platform/tessel/http.h"

namespace Tessel::Http {

class PoolWorker;

// All requests to one endpoint: HTTP/2 streams multiplexed over a single
// connection, driven by one I/O thread that starts with the first request.
// Dropping the last reference stops that thread and fails what is still in
// flight; so does unloading the library.
class Http2ConnectionPool final : public HttpConnectionPool {
 public:
  // Keeps its own copy of the config, so the caller may change or drop it.
  Http2ConnectionPool(Ref<ConnectionSpec> spec, const Http2SvcConfig& config);
  ~Http2ConnectionPool() override;

  ConnectionSpec* GetConnectionSpec() const noexcept { return spec_.Get(); }
  const Http2SvcConfig& GetConfig() const noexcept { return *config_; }
  PoolWorker* GetWorker() const noexcept { return worker_.Get(); }

  // Exchanges the I/O thread currently holds (queued or on the wire).
  size_t GetActiveExchangeCount() const noexcept;

 private:
  Ref<ConnectionSpec> spec_;
  Ref<Http2SvcConfig> config_;
  Ref<PoolWorker> worker_;
};

}  // namespace Tessel::Http
