#pragma once

#include <cstddef>

#include "platform/http/pool_core.h"

namespace Tessel::Http {

// All requests to one endpoint: HTTP/2 streams multiplexed over a single
// connection, driven by the threads that wait for them. Dropping the last
// reference fails what is still in flight; so does unloading the library.
class Http2ConnectionPool final : public HttpConnectionPool {
 public:
  // Keeps its own copy of the config, so the caller may change or drop it.
  Http2ConnectionPool(Ref<ConnectionSpec> spec, const Http2SvcConfig& config);
  ~Http2ConnectionPool() override;

  ConnectionSpec* GetConnectionSpec() const noexcept { return core_->Spec(); }
  const Http2SvcConfig& GetConfig() const noexcept { return core_->Config(); }
  PoolCore* GetCore() const noexcept { return core_.Get(); }

  // Exchanges queued or on the wire.
  size_t GetActiveExchangeCount() const noexcept { return core_->ActiveCount(); }

 private:
  Ref<PoolCore> core_;
};

}  // namespace Tessel::Http
