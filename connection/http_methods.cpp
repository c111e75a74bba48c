#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "connection/bmc_redfish_connection.h"
#include "connection/request_target.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

using Tessel::Ref;
namespace Http = Tessel::Http;
namespace Service = Tessel::Service;

namespace {

// POST and DELETE answers are read once, into a buffer of this size.
constexpr uint32_t kSingleReadSize = 2048;
constexpr uint32_t kDefaultGetBufferSize = 2048;
// A larger body is read in several passes rather than into one buffer sized
// by whatever Content-Length the answer claims.
constexpr uint64_t kMaxGetBufferSize = 1 << 20;

// Builds the request unless its target, made from ids the BMC chose, could
// leave the proxy's BMC route; a refused target is never sent.
int CreateRequest(Http::HttpMethod method, const std::string& url, Service::Logger* logger,
                  Ref<Http::ClientRequest>& request) {
  // The client checks the rest of the target itself; the reason is looked up
  // only for a refused one.
  const char* problem = RouteProblem(url);
  if (problem == nullptr) {
    try {
      Http::CreateHttpRequest(method, url, request);
      return RedfishStatusOk;
    } catch (const Tessel::InvalidArgumentException& e) {
      problem = UnsafeRequestTarget(url);
      if (problem == nullptr) problem = e.what();
    }
  }
  TESSEL_LOG(logger, 3, "%1: refused request target '%2': %3", Http::MethodName(method), url,
             problem);
  NoteExchange(Http::MethodName(method), url);
  NoteFailure(REDFISH_LINK_GUARD, RedfishStatusInvalidArgument,
              std::string("refused request target: ") + problem);
  return RedfishStatusInvalidArgument;
}

// Content-Length as a buffer size: digits only, else the default size. The
// platform has already received the whole body, so the value is only a hint.
uint64_t BufferSizeFor(std::string_view length) {
  if (length.empty() || length.size() > 19) return kDefaultGetBufferSize;
  uint64_t size = 0;
  for (char c : length) {
    if (c < '0' || c > '9') return kDefaultGetBufferSize;
    size = size * 10 + static_cast<uint64_t>(c - '0');
  }
  return std::min(size, kMaxGetBufferSize);
}

void SetAuthentication(Http::ClientRequest& request, const std::optional<std::string>& token,
                       const std::string& jwt) {
  if (token) {
    request.SetHeader("X-Auth-Token", *token);
  } else {
    request.SetHeader("Authorization", "Basic " + jwt);
  }
}

// One read of at most kSingleReadSize bytes; a read of -1 (no body) gives an
// empty text.
std::string ReadOnce(Http::ClientResponse& response, Service::Logger* logger, int32_t& count) {
  std::vector<char> buffer(kSingleReadSize, '\0');
  count = std::max<int32_t>(response.ReadBody(buffer.data(), kSingleReadSize), 0);
  TESSEL_LOG(logger, 5, "[ClientResponse::Read] Read %1 bytes", count);
  std::string text(buffer.data(), strnlen(buffer.data(), kSingleReadSize));
  text.resize(static_cast<size_t>(static_cast<int64_t>(count)));
  return text;
}

// The result of an answered request: 401 means the credentials were refused.
// A failed answer's body tells who answered (the BMC or the proxy).
int Answered(int result, const std::string& body) {
  if (result > 0 && result < 1000) NoteAnswer(result, body);
  return result == Http::ResponseCode::Unauthorized ? RedfishStatusUnauthorized : result;
}

}  // namespace

int BmcRedfishConnection::MakeHttpRequestGet(const std::string& url, std::string& response,
                                             std::chrono::milliseconds timeout) {
  std::lock_guard<FifoMutex> lock(requestMutex_);
  Ref<Http::ClientRequest> request;
  if (int refused = CreateRequest(Http::Get, url, logger_, request)) return refused;
  // The design's trace of every GET: it carries the Base64 credentials
  // (BMCREDFISH_LOG_MASK=1 masks them).
  TESSEL_LOG(logger_, 5, "SESSION_TOKEN: %1 _jwt: %2",
             sessionToken_ ? *sessionToken_ : std::string("no value"), _jwt);
  SetAuthentication(*request, sessionToken_, _jwt);
  request->SetHeader("Accept", "application/json");

  Ref<Http::ClientResponse> answer;
  int result = _bmc_con->SendRequestToProxy(url, request, answer, Http::Get, timeout);
  if (!answer) return result;

  uint64_t size = kDefaultGetBufferSize;
  if (auto length = answer->GetHeader("Content-Length")) {
    TESSEL_LOG(logger_, 5, "[ClientResponse::Content-Length] %1", *length);
    size = BufferSizeFor(*length);
  }
  const auto capacity = static_cast<uint32_t>(size);
  std::vector<char> buffer(capacity, '\0');
  for (;;) {
    int32_t n = answer->ReadBody(buffer.data(), capacity);
    if (n < 0) break;
    response.append(buffer.data(), static_cast<size_t>(n));
  }
  TESSEL_LOG(logger_, 5, "[ClientResponse::Read] Read %1 bytes%2",
             static_cast<int32_t>(response.size()),
             result == RedfishStatusOk ? std::string() : "\n'" + response + "'");
  return Answered(result, response);
}

int BmcRedfishConnection::MakeHttpRequestPost(const std::string& url, const std::string& body,
                                              std::string& response, bool skipAuth,
                                              std::chrono::milliseconds timeout) {
  std::lock_guard<FifoMutex> lock(requestMutex_);
  Ref<Http::ClientRequest> request;
  if (int refused = CreateRequest(Http::Post, url, logger_, request)) return refused;
  if (!skipAuth) SetAuthentication(*request, sessionToken_, _jwt);
  request->SetHeader("Content-Type", "application/json");
  request->SetBody(body.data(), static_cast<uint32_t>(body.size()));

  Ref<Http::ClientResponse> answer;
  int result = _bmc_con->SendRequestToProxy(url, request, answer, Http::Post, timeout);
  if (result == Http::ResponseCode::ServiceUnavailable) {
    if (answer) {
      if (auto retryAfter = answer->GetHeader("Retry-After")) {
        TESSEL_LOG(logger_, 5, "[ClientResponse::Retry-After] %1", *retryAfter);
      }
    }
    return result;
  }
  if (!answer) return result;

  int32_t count = 0;
  response = ReadOnce(*answer, logger_, count);
  if (result == Http::ResponseCode::Created) {
    if (auto location = answer->GetHeader("Location")) {
      TESSEL_LOG(logger_, 5, "[ClientResponse::LOCATION] %1", *location);
    }
    return RedfishStatusOk;
  }
  return Answered(result, response);
}

int BmcRedfishConnection::MakeHttpRequestDelete(const std::string& url, std::string& response,
                                                std::chrono::milliseconds timeout) {
  std::lock_guard<FifoMutex> lock(requestMutex_);
  Ref<Http::ClientRequest> request;
  if (int refused = CreateRequest(Http::Delete, url, logger_, request)) return refused;
  SetAuthentication(*request, sessionToken_, _jwt);

  Ref<Http::ClientResponse> answer;
  int result = _bmc_con->SendRequestToProxy(url, request, answer, Http::Delete, timeout);
  if (!answer) return result;
  int32_t count = 0;
  response = ReadOnce(*answer, logger_, count);
  return Answered(result, response);
}

}  // namespace redfish
