#include "transport/bmc_http_connection.h"

#include <pthread.h>

#include <new>

#include "transport/exchange_failure.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

using Tessel::Ref;
namespace Http = Tessel::Http;
namespace Service = Tessel::Service;

std::atomic<BmcHttpConnection*> BmcHttpConnection::instance{nullptr};
Ref<Service::Logger> BmcHttpConnection::_logger;
std::mutex BmcHttpConnection::gMutex;
std::atomic<bool> BmcHttpConnection::_bmcJsonUpdated{false};

namespace {

constexpr char kProxyHost[] = "localhost";
constexpr int kProxyPort = 80;
constexpr int64_t kDefaultTimeoutMs = 4000;

// A child forked while another thread held gMutex (a route update under way)
// would wait for it for ever: the child gets a fresh one, and redoes the
// update if it had not finished.
void RenewLockInChild() { ::new (static_cast<void*>(&BmcHttpConnection::gMutex)) std::mutex(); }

struct ForkHandler {
  ForkHandler() { pthread_atfork(nullptr, nullptr, &RenewLockInChild); }
} gForkHandler;

}  // namespace

BmcHttpConnection::BmcHttpConnection() = default;

void ReleaseBmcHttpConnection() noexcept {
  std::lock_guard<std::mutex> lock(BmcHttpConnection::gMutex);
  delete BmcHttpConnection::instance.exchange(nullptr, std::memory_order_acq_rel);
}

BmcHttpConnection* BmcHttpConnection::GetInstance(const Ref<Service::Logger>& logger) {
  BmcHttpConnection* existing = instance.load(std::memory_order_acquire);
  if (existing != nullptr) return existing;
  std::lock_guard<std::mutex> lock(gMutex);
  existing = instance.load(std::memory_order_acquire);
  if (existing != nullptr) return existing;
  auto* created = new BmcHttpConnection();
  // Set before publishing: the fast path above reads _logger without gMutex.
  if (logger) _logger = logger;
  instance.store(created, std::memory_order_release);
  return created;
}

Http::ConnectionSpec* BmcHttpConnection::GetConnectionSpec() {
  return spec_.GetOrCreate(gMutex, [] {
    Ref<Http::ConnectionSpec> spec;
    Http::CreateTCPConnectionSpec(kProxyHost, kProxyPort, false, {}, spec);
    return spec;
  });
}

Http::HttpConnectionPool* BmcHttpConnection::GetHttp2ConnectionPool() {
  // gMutex is not recursive and creating the ConnectionSpec takes it: get it first.
  Http::ConnectionSpec* spec = GetConnectionSpec();
  return pool_.GetOrCreate(gMutex, [spec] {
    Ref<Http::Http2SvcConfig> config = Http::GetDefaultHttp2SvcCfg();
    return Http::CreateHttp2ConnectionPool(spec, config.Get());
  });
}

Http::HttpConnectionPool* BmcHttpConnection::GetConnectionPool() {
  // Kept as designed although the pool exists after the first call: this is
  // the transport's trace line, written once per request.
  TESSEL_LOG(_logger, 5, "Creating SideCar HTTP2 ConnectionPool");
  return GetHttp2ConnectionPool();
}

Ref<Http::HttpUserAgent> BmcHttpConnection::CreateUserAgent(Http::CookieStore* cookies) {
  Http::HttpConnectionPool* pool = GetConnectionPool();
  Http::ConnectionSpec* spec = GetConnectionSpec();
  return Http::CreateHttpUserAgent(spec, cookies, pool);
}

Ref<Http::HttpUserAgent> BmcHttpConnection::CreateUserAgent() {
  Ref<Http::CookieStore> cookies;
  Http::CreateCookieStore("", cookies);
  return CreateUserAgent(cookies.Get());
}

int BmcHttpConnection::SendRequestToProxy(const std::string& url, Ref<Http::ClientRequest>& request,
                                          Ref<Http::ClientResponse>& response,
                                          Http::HttpMethod method,
                                          std::chrono::milliseconds timeout) {
  Ref<Http::HttpUserAgent> agent = CreateUserAgent();
  const std::string methodName = Http::MethodName(method);
  const int64_t timeoutMs = timeout.count() != 0 ? timeout.count() : kDefaultTimeoutMs;
  // The proxy's name, for the failure lines only.
  auto target = [&agent] { return agent->GetConnectionSpec()->ToString(); };
  const int64_t deadline = Tessel::System::GetMonotonicTime() + timeoutMs * 1000;

  NoteExchange(methodName, url);
  for (;;) {
    try {
      Ref<Http::PendingExchange> handle;
      agent->AsyncSendRequest(request.Get(), {}, handle);
      agent->WaitForResponse(handle.Get(), timeoutMs * 1000, response);
      break;
    } catch (const Tessel::Exception&) {
      const int64_t timeLeft = deadline - Tessel::System::GetMonotonicTime();
      const int result = ExchangeFailure(_logger.Get(), methodName, target, timeoutMs, timeLeft);
      if (result != RedfishStatusOk) return result;
    }
  }

  const Http::ClientResponse::Status status = response->GetStatus();
  if (method != Http::Get && method != Http::Post && method != Http::Delete) {
    TESSEL_LOG(_logger, 3, "Invalid HTTP method request");
    return RedfishStatusInvalidArgument;
  }
  if (status.code != Http::ResponseCode::Ok) {
    if (method == Http::Get && status.code == Http::ResponseCode::Found) {
      if (auto location = response->GetHeader("Location")) {
        TESSEL_LOG(_logger, 5, "[ClientResponse::LOCATION] %1", *location);
      }
    }
    TESSEL_LOG(_logger, 3, "%1: Error getting from %2: %3 (%4)", methodName, url, status.code,
               status.reason);
    NoteAnswer(status.code, {});
    return status.code;
  }
  TESSEL_LOG(_logger, 5, "Successfully called portico config file %1 from %2", methodName, url);
  return RedfishStatusOk;
}

}  // namespace redfish
