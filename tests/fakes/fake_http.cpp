#include "tests/fakes/fake_http.h"

#include <strings.h>

#include <mutex>

namespace {

struct FakeExchange : Tessel::Http::PendingExchange {
  explicit FakeExchange(fake_http::Request r) : request(std::move(r)) {}
  fake_http::Request request;
};

}  // namespace

namespace fake_http {
namespace {

// Only the latest requests are kept, so a long fuzzing run does not grow.
constexpr size_t kMaxKeptRequests = 4096;

std::mutex gMutex;
Handler gHandler;
std::vector<Request> gRequests;
int gPools = 0;

Reply Answer(Request request) {
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gRequests.size() >= kMaxKeptRequests) {
      gRequests.erase(gRequests.begin(), gRequests.begin() + kMaxKeptRequests / 2);
    }
    gRequests.push_back(request);
    handler = gHandler;
  }
  if (!handler) return Json(404, "{}");
  return handler(request);
}

Tessel::Ref<Tessel::Http::ClientResponse> Deliver(const Reply& reply) {
  if (reply.fail) reply.fail();
  return Tessel::MakeRef<Tessel::Http::ClientResponse>(reply.status, reply.headers, reply.body);
}

Request Describe(Tessel::Http::ClientRequest* request, Tessel::Http::ConnectionSpec* spec) {
  if (request == nullptr) throw Tessel::InvalidArgumentException("null request");
  Request r;
  r.method = request->GetMethod();
  r.target = request->GetTarget();
  r.headers = request->GetHeaders();
  r.body = request->GetBody();
  r.endpoint = spec ? spec->ToString() : "";
  return r;
}

}  // namespace

std::string Request::Header(const std::string& name) const {
  for (const auto& h : headers) {
    if (strcasecmp(h.name.c_str(), name.c_str()) == 0) return h.value;
  }
  return "";
}

bool Request::HasHeader(const std::string& name) const {
  for (const auto& h : headers) {
    if (strcasecmp(h.name.c_str(), name.c_str()) == 0) return true;
  }
  return false;
}

void SetHandler(Handler handler) {
  std::lock_guard<std::mutex> lock(gMutex);
  gHandler = std::move(handler);
  gRequests.clear();
}

std::vector<Request> Requests() {
  std::lock_guard<std::mutex> lock(gMutex);
  return gRequests;
}

int PoolsCreated() {
  std::lock_guard<std::mutex> lock(gMutex);
  return gPools;
}

Reply Json(int status, std::string body) {
  Reply r;
  r.status = status;
  r.headers.push_back({"content-type", "application/json"});
  r.headers.push_back({"content-length", std::to_string(body.size())});
  r.body = std::move(body);
  return r;
}

}  // namespace fake_http

namespace Tessel::Http {

Ref<Http2SvcConfig> GetDefaultHttp2SvcCfg() { return MakeRef<Http2SvcConfig>(); }

Ref<HttpConnectionPool> CreateHttp2ConnectionPool(ConnectionSpec*, Http2SvcConfig*) {
  std::lock_guard<std::mutex> lock(fake_http::gMutex);
  ++fake_http::gPools;
  return MakeRef<HttpConnectionPool>();
}

HttpUserAgent::~HttpUserAgent() = default;

HttpConnectionPool* HttpUserAgent::PoolForSend() { return pool_.Get(); }

void HttpUserAgent::AsyncSendRequest(ClientRequest* request, CompletionCallback,
                                     Ref<PendingExchange>& handle) {
  handle = Ref<PendingExchange>(new FakeExchange(fake_http::Describe(request, spec_.Get())));
}

void HttpUserAgent::WaitForResponse(PendingExchange* handle, int64_t limitUs,
                                    Ref<ClientResponse>& response) {
  fake_http::Request r = static_cast<FakeExchange*>(handle)->request;
  r.waitLimitUs = limitUs;
  response = fake_http::Deliver(fake_http::Answer(r));
}

void HttpUserAgent::SendRequest(ClientRequest* request, Ref<ClientResponse>& response) {
  fake_http::Request r = fake_http::Describe(request, spec_.Get());
  r.synchronous = true;
  response = fake_http::Deliver(fake_http::Answer(r));
}

Ref<HttpUserAgent> CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies,
                                       HttpConnectionPool* pool) {
  return MakeRef<HttpUserAgent>(Ref<ConnectionSpec>(spec), Ref<CookieStore>(cookies),
                                Ref<HttpConnectionPool>(pool));
}

Ref<HttpUserAgent> CreateHttpUserAgent(ConnectionSpec* spec) {
  return MakeRef<HttpUserAgent>(Ref<ConnectionSpec>(spec), nullptr, nullptr);
}

}  // namespace Tessel::Http
