// Pools, user agents and the synchronous and asynchronous sends.
#include "platform/http/connection_pool.h"

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

void CheckCleartext(const ConnectionSpec& spec) {
  // Every endpoint of this library is local and cleartext; no TLS stack is
  // linked, so a TLS spec is refused rather than sent in the clear.
  if (spec.IsTls()) throw InvalidArgumentException("TLS is not supported: " + spec.ToString());
}

}  // namespace

Ref<Http2SvcConfig> GetDefaultHttp2SvcCfg() { return MakeRef<Http2SvcConfig>(); }

Http2ConnectionPool::Http2ConnectionPool(Ref<ConnectionSpec> spec, const Http2SvcConfig& config)
    : core_(MakeRef<PoolCore>(std::move(spec), config)) {}

Http2ConnectionPool::~Http2ConnectionPool() { core_->Stop(); }

Ref<HttpConnectionPool> CreateHttp2ConnectionPool(ConnectionSpec* spec, Http2SvcConfig* config) {
  if (spec == nullptr) throw InvalidArgumentException("connection pool without a connection spec");
  CheckCleartext(*spec);
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
  CheckCleartext(*spec);
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

HttpUserAgent::~HttpUserAgent() = default;

// Agents without a pool speak HTTP/1.1 and need none.
HttpConnectionPool* HttpUserAgent::PoolForSend() { return pool_.Get(); }

void HttpUserAgent::AsyncSendRequest(ClientRequest* request, CompletionCallback callback,
                                     Ref<PendingExchange>& handle) {
  if (request == nullptr) throw InvalidArgumentException("no request to send");
  if (request->GetMethod() < Get || request->GetMethod() > Patch) {
    throw InvalidArgumentException("unknown HTTP method " +
                                   std::to_string(static_cast<int>(request->GetMethod())));
  }
  if (!request->TargetChecked() && !IsOriginFormTarget(request->GetTarget())) {
    throw InvalidArgumentException("unsafe request target '" + request->GetTarget() + "'");
  }
  if (HttpConnectionPool* pool = PoolForSend()) {
    Http2ConnectionPool* http2 = AsHttp2Pool(pool);
    auto exchange =
        MakeRef<Exchange>(Ref<PoolCore>(http2->GetCore()), *request, std::move(callback));
    handle = Ref<PendingExchange>(exchange.Get());
    http2->GetCore()->Submit(exchange);
    return;
  }
  auto exchange = MakeRef<Exchange>(Ref<PoolCore>(), *request, std::move(callback));
  const auto defaults = GetDefaultHttp2SvcCfg();
  exchange->h1Spec = spec_;
  exchange->h1ConnectTimeoutUs = defaults->connectTimeoutUs;
  exchange->maxBodyBytes = defaults->maxResponseBodyBytes;
  handle = Ref<PendingExchange>(exchange.Get());
}

void HttpUserAgent::WaitForResponse(PendingExchange* pending, int64_t limitUs,
                                    Ref<ClientResponse>& response) {
  if (pending == nullptr) throw InvalidArgumentException("no exchange to wait for");
  auto* exchange = dynamic_cast<Exchange*>(pending);
  if (exchange == nullptr) throw InvalidArgumentException("exchange not made by AsyncSendRequest");
  if (limitUs < 0) throw InvalidArgumentException("negative wait limit");
  if (PoolCore* core = exchange->Core()) {
    core->Wait(*exchange, limitUs);
  } else {
    RunHttp1(*exchange, limitUs);
  }
  exchange->GetResult(response);
}

void HttpUserAgent::SendRequest(ClientRequest* request, Ref<ClientResponse>& response) {
  Ref<PendingExchange> handle;
  AsyncSendRequest(request, nullptr, handle);
  const int64_t limit = pool_ ? AsHttp2Pool(pool_.Get())->GetConfig().syncSendTimeoutUs
                              : GetDefaultHttp2SvcCfg()->syncSendTimeoutUs;
  WaitForResponse(handle.Get(), limit, response);
}

}  // namespace Tessel::Http
