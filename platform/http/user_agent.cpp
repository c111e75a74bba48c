// Pools, user agents and the synchronous and asynchronous sends.
#include <mutex>

#include "platform/http/connection_pool.h"
#include "platform/http/pool_worker.h"

namespace Tessel::Http {
namespace {

bool SameEndpoint(const ConnectionSpec& a, const ConnectionSpec& b) {
  return a.GetHost() == b.GetHost() && a.GetPort() == b.GetPort() && a.IsTls() == b.IsTls();
}

Http2ConnectionPool* AsHttp2Pool(HttpConnectionPool* pool) {
  auto* http2 = dynamic_cast<Http2ConnectionPool*>(pool);
  if (http2 == nullptr) {
    throw InvalidArgumentException("connection pool not made by CreateHttp2ConnectionPool");
  }
  return http2;
}

// Guards the private pools of agents made without one; taken only by such agents.
std::mutex& OwnPoolMutex() {
  static std::mutex m;
  return m;
}

}  // namespace

Ref<Http2SvcConfig> GetDefaultHttp2SvcCfg() { return MakeRef<Http2SvcConfig>(); }

Http2ConnectionPool::Http2ConnectionPool(Ref<ConnectionSpec> spec, const Http2SvcConfig& config)
    : spec_(std::move(spec)), config_(MakeRef<Http2SvcConfig>()) {
  config_->connectTimeoutUs = config.connectTimeoutUs;
  config_->syncSendTimeoutUs = config.syncSendTimeoutUs;
  config_->maxResponseBodyBytes = config.maxResponseBodyBytes;
  config_->maxConcurrentStreams = config.maxConcurrentStreams;
  worker_ = MakeRef<PoolWorker>(spec_, *config_);
}

Http2ConnectionPool::~Http2ConnectionPool() {
  if (worker_) worker_->Stop();
}

size_t Http2ConnectionPool::GetActiveExchangeCount() const noexcept {
  return worker_->GetActiveCount();
}

Ref<HttpConnectionPool> CreateHttp2ConnectionPool(ConnectionSpec* spec, Http2SvcConfig* config) {
  if (spec == nullptr) throw InvalidArgumentException("connection pool without a connection spec");
  Ref<Http2SvcConfig> defaults;
  if (config == nullptr) {
    defaults = GetDefaultHttp2SvcCfg();
    config = defaults.Get();
  }
  if (config->connectTimeoutUs <= 0 || config->syncSendTimeoutUs <= 0 ||
      config->maxResponseBodyBytes < 0 || config->maxConcurrentStreams == 0) {
    throw InvalidArgumentException("invalid HTTP/2 pool settings");
  }
  return MakeRef<Http2ConnectionPool>(Ref<ConnectionSpec>(spec), *config);
}

Ref<HttpUserAgent> CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies,
                                       HttpConnectionPool* pool) {
  if (spec == nullptr) throw InvalidArgumentException("user agent without a connection spec");
  // The pool decides where requests go; an agent claiming another endpoint
  // would send them somewhere its owner does not expect.
  if (pool != nullptr && !SameEndpoint(*spec, *AsHttp2Pool(pool)->GetConnectionSpec())) {
    throw InvalidArgumentException("pool for " +
                                   AsHttp2Pool(pool)->GetConnectionSpec()->ToString() +
                                   " given to a user agent for " + spec->ToString());
  }
  return MakeRef<HttpUserAgent>(Ref<ConnectionSpec>(spec), Ref<CookieStore>(cookies),
                                Ref<HttpConnectionPool>(pool));
}

Ref<HttpUserAgent> CreateHttpUserAgent(ConnectionSpec* spec) {
  return CreateHttpUserAgent(spec, nullptr, nullptr);
}

// Dropping ownPool_ stops the private pool's thread (never from that thread
// itself: the pool handles that case).
HttpUserAgent::~HttpUserAgent() = default;

HttpConnectionPool* HttpUserAgent::PoolForSend() {
  if (pool_) return pool_.Get();
  std::lock_guard<std::mutex> lock(OwnPoolMutex());
  if (!ownPool_) ownPool_ = CreateHttp2ConnectionPool(spec_.Get(), nullptr);
  return ownPool_.Get();
}

void HttpUserAgent::AsyncSendRequest(ClientRequest* request, CompletionCallback callback,
                                     Ref<PendingExchange>& handle) {
  if (request == nullptr) throw InvalidArgumentException("no request to send");
  Http2ConnectionPool* pool = AsHttp2Pool(PoolForSend());
  PoolWorker* worker = pool->GetWorker();
  auto exchange = MakeRef<Exchange>(Ref<PoolWorker>(worker), std::move(callback));
  exchange->Prepare(*request, worker->GetOrigin(), pool->GetConfig(),
                    pool->GetConnectionSpec()->IsTls());
  // The handle is set before the handover: on a stopped pool the exchange
  // fails (and its callback runs) inside Submit.
  handle = Ref<PendingExchange>(exchange.Get());
  worker->Submit(std::move(exchange));
}

void HttpUserAgent::WaitForResponse(PendingExchange* pending, int64_t limitUs,
                                    Ref<ClientResponse>& response) {
  if (pending == nullptr) throw InvalidArgumentException("no exchange to wait for");
  auto* handle = dynamic_cast<Exchange*>(pending);
  if (handle == nullptr) throw InvalidArgumentException("exchange not made by AsyncSendRequest");
  if (limitUs < 0) throw InvalidArgumentException("negative wait limit");
  if (handle->GetWorker()->OnIoThread()) {
    // A completion callback waiting for its own pool would wait forever.
    if (!handle->Wait(0))
      throw Exception("cannot wait for an exchange on its pool's own I/O thread");
  } else if (!handle->Wait(limitUs) && handle->MarkCancelled()) {
    // The I/O thread takes the transfer out of the multi handle; its
    // reference keeps the exchange alive until then.
    handle->GetWorker()->Cancel(handle);
    throw TimeoutException("no response within " + std::to_string(limitUs / 1000) + " ms");
  }
  handle->GetResult(response);
}

void HttpUserAgent::SendRequest(ClientRequest* request, Ref<ClientResponse>& response) {
  Ref<PendingExchange> handle;
  AsyncSendRequest(request, nullptr, handle);
  WaitForResponse(handle.Get(), AsHttp2Pool(PoolForSend())->GetConfig().syncSendTimeoutUs,
                  response);
}

}  // namespace Tessel::Http
