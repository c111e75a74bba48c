#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/tessel/exception.h"
#include "platform/tessel/ref.h"
#include "platform/tessel/system.h"

// HTTP client of the host platform. A pool speaks HTTP/2 with prior knowledge
// over cleartext TCP; an agent without a pool speaks HTTP/1.1. TLS specs are
// refused (InvalidArgumentException): every endpoint here is local.
//
// Failures are thrown as Tessel exceptions:
//   SystemException(111)       connection refused
//   SystemException(110)       the connect did not complete in time; nothing was sent
//   TimeoutException           a wait limit passed (the exchange is cancelled)
//   Ssl::SSLVerifyException    the server's certificate was not accepted
//   InvalidArgumentException   a malformed target or argument
//   Exception                  anything else, with the transport's text
namespace Tessel::Http {

enum HttpMethod : int { Get = 1, Head = 2, Post = 3, Put = 4, Delete = 5, Patch = 6 };

// The request line's method token ("GET"); "GET" for an unknown value.
const char* MethodName(HttpMethod m) noexcept;

enum ResponseCode : int {
  Ok = 200,
  Created = 201,
  Accepted = 202,
  NoContent = 204,
  MovedPermanently = 301,
  Found = 302,
  NotModified = 304,
  BadRequest = 400,
  Unauthorized = 401,
  Forbidden = 403,
  NotFound = 404,
  MethodNotAllowed = 405,
  Conflict = 409,
  InternalServerError = 500,
  NotImplemented = 501,
  BadGateway = 502,
  ServiceUnavailable = 503,
  GatewayTimeout = 504,
};

// Standard reason phrase of a status ("Not Found"); HTTP/2 carries none.
const char* ReasonPhrase(int code) noexcept;

using SocketCallback = std::function<void(System::TCPClientSocket*)>;

// Where requests go: host, port, TLS or not.
class ConnectionSpec : public RefCounted {
 public:
  ConnectionSpec(std::string host, int port, bool tls, SocketCallback onSocket)
      : host_(std::move(host)), port_(port), tls_(tls), onSocket_(std::move(onSocket)) {}
  const std::string& GetHost() const noexcept { return host_; }
  int GetPort() const noexcept { return port_; }
  bool IsTls() const noexcept { return tls_; }
  const SocketCallback& GetSocketCallback() const noexcept { return onSocket_; }
  // "http://localhost:80" or "https://host:443".
  std::string ToString() const;

 private:
  std::string host_;
  int port_;
  bool tls_;
  SocketCallback onSocket_;
};

// Throws InvalidArgumentException for an empty host or a port outside 1..65535.
void CreateTCPConnectionSpec(const std::string& host, int port, bool tls, SocketCallback onSocket,
                             Ref<ConnectionSpec>& spec);

// Settings of an HTTP/2 pool. Times are microseconds.
class Http2SvcConfig : public RefCounted {
 public:
  int64_t connectTimeoutUs = 1500000;       // shorter than a request's usual limit, so a retry fits
  int64_t syncSendTimeoutUs = 10000000;     // limit of SendRequest, which takes none of its own
  int64_t maxResponseBodyBytes = 64 << 20;  // a larger body fails the exchange
  uint32_t maxConcurrentStreams = 100;
};
Ref<Http2SvcConfig> GetDefaultHttp2SvcCfg();

// A pool of connections to one endpoint. Implementations derive from it; it is
// complete here so that Ref<HttpConnectionPool> can live in any header.
class HttpConnectionPool : public RefCounted {
 public:
  ~HttpConnectionPool() override = default;
};
Ref<HttpConnectionPool> CreateHttp2ConnectionPool(ConnectionSpec* spec, Http2SvcConfig* config);

class CookieStore : public RefCounted {
 public:
  explicit CookieStore(std::string name) : name_(std::move(name)) {}
  const std::string& GetName() const noexcept { return name_; }

 private:
  std::string name_;
};
void CreateCookieStore(const std::string& name, Ref<CookieStore>& store);

struct Header {
  std::string name;
  std::string value;
};

class ClientRequest : public RefCounted {
 public:
  ClientRequest(HttpMethod method, std::string target)
      : method_(method), target_(std::move(target)) {}
  HttpMethod GetMethod() const noexcept { return method_; }
  const std::string& GetTarget() const noexcept { return target_; }
  // Made by CreateHttpRequest, which checked the target (it never changes):
  // sending it need not check it again.
  bool TargetChecked() const noexcept { return targetChecked_; }
  // Replaces an earlier header of the same name (names compare case-insensitively).
  void SetHeader(const std::string& name, const std::string& value);
  const std::vector<Header>& GetHeaders() const noexcept { return headers_; }
  void SetBody(const void* data, uint32_t length);
  const std::string& GetBody() const noexcept { return body_; }

 private:
  friend void CreateHttpRequest(HttpMethod, std::string_view, Ref<ClientRequest>&);
  HttpMethod method_;
  std::string target_;
  bool targetChecked_ = false;
  std::vector<Header> headers_;
  std::string body_;
};

// Why a target is not a safe origin-form path, or null when it is one: it
// starts with "/", has no byte <= 0x20 or 0x7F, no '#' or '\\', no "." or
// ".." path segment, and no percent-encoded '.', '/', '\\', control character
// or NUL (nor a malformed '%').
const char* OriginFormProblem(std::string_view target) noexcept;
bool IsOriginFormTarget(std::string_view target) noexcept;

// Throws InvalidArgumentException unless IsOriginFormTarget(target) and the
// method is known.
void CreateHttpRequest(HttpMethod method, std::string_view target, Ref<ClientRequest>& request);

class ClientResponse : public RefCounted {
 public:
  struct Status {
    int code = 0;
    std::string reason;
  };
  ClientResponse(int code, std::vector<Header> headers, std::string body)
      : code_(code), headers_(std::move(headers)), body_(std::move(body)) {}
  Status GetStatus() const { return Status{code_, ReasonPhrase(code_)}; }
  // Header names compare case-insensitively; the first header of the name wins.
  std::optional<std::string_view> GetHeader(std::string_view name) const;
  // Copies up to capacity bytes of the body not yet read and returns the count.
  // The first read returns a count (0 for an empty body); a later read returns
  // -1 once the body is exhausted. A read with no capacity also ends the body
  // after the first, so a reading loop can never spin.
  int32_t ReadBody(void* buffer, uint32_t capacity);

 private:
  int code_;
  std::vector<Header> headers_;
  std::string body_;
  size_t read_ = 0;
  bool readBefore_ = false;
};

// A request in flight, as returned by AsyncSendRequest. Implementations derive.
class PendingExchange : public RefCounted {
 public:
  ~PendingExchange() override = default;
};
using CompletionCallback = std::function<void()>;

class HttpUserAgent : public RefCounted {
 public:
  HttpUserAgent(Ref<ConnectionSpec> spec, Ref<CookieStore> cookies, Ref<HttpConnectionPool> pool)
      : spec_(std::move(spec)), cookies_(std::move(cookies)), pool_(std::move(pool)) {}
  ~HttpUserAgent() override;

  ConnectionSpec* GetConnectionSpec() const noexcept { return spec_.Get(); }
  CookieStore* GetCookieStore() const noexcept { return cookies_.Get(); }
  HttpConnectionPool* GetConnectionPool() const noexcept { return pool_.Get(); }

  // Starts sending (on a pool, the request is written at once if its
  // connection is up). The callback (may be empty) runs when the exchange
  // ends, on the thread that completed it: a waiting caller's, or the pool's
  // callback thread; for an agent without a pool, in WaitForResponse. It
  // must not wait for an exchange of its own pool. The request is copied, so
  // it may be sent again later. Throws InvalidArgumentException for an unsafe
  // target (see IsOriginFormTarget) or an unknown method.
  void AsyncSendRequest(ClientRequest* request, CompletionCallback callback,
                        Ref<PendingExchange>& handle);
  // Waits up to limitUs microseconds. On time-out the exchange is cancelled
  // and TimeoutException thrown; failures of the exchange are thrown here.
  void WaitForResponse(PendingExchange* handle, int64_t limitUs, Ref<ClientResponse>& response);
  // Send and wait, with the pool's syncSendTimeoutUs as the limit.
  void SendRequest(ClientRequest* request, Ref<ClientResponse>& response);

 private:
  Ref<ConnectionSpec> spec_;
  Ref<CookieStore> cookies_;
  Ref<HttpConnectionPool> pool_;
  HttpConnectionPool* PoolForSend();
};

Ref<HttpUserAgent> CreateHttpUserAgent(ConnectionSpec* spec, CookieStore* cookies,
                                       HttpConnectionPool* pool);
Ref<HttpUserAgent> CreateHttpUserAgent(ConnectionSpec* spec);

}  // namespace Tessel::Http
