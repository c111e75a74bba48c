#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "connection/bmc_redfish_connection.h"
#include "utils/redfish_status.h"

namespace redfish {

using Tessel::Ref;
namespace Http = Tessel::Http;
namespace Service = Tessel::Service;

namespace {

// POST and DELETE answers are read once, into a buffer of this size.
constexpr uint32_t kSingleReadSize = 2048;
constexpr uint32_t kDefaultGetBufferSize = 2048;

void SetAuthentication(Http::ClientRequest& request, const std::optional<std::string>& token,
                       const std::string& jwt) {
  if (token) {
    request.SetHeader("X-Auth-Token", *token);
  } else {
    request.SetHeader("Authorization", Tessel::Detail::ASPrintInternal("Basic %1", jwt));
  }
}

// One read of at most kSingleReadSize bytes. A read of -1 asks for an
// impossible size, which std::string refuses with a length error.
std::string ReadOnce(Http::ClientResponse& response, Service::Logger* logger, int32_t& count) {
  std::vector<char> buffer(kSingleReadSize, '\0');
  count = response.ReadBody(buffer.data(), kSingleReadSize);
  if (LogsAt(logger, 5)) {
    Service::LogInternal(logger, 5, "[ClientResponse::Read] Read %1 bytes", count);
  }
  std::string text(buffer.data(), strnlen(buffer.data(), kSingleReadSize));
  text.resize(static_cast<size_t>(static_cast<int64_t>(count)));
  return text;
}

}  // namespace

int BmcRedfishConnection::MakeHttpRequestGet(const std::string& url, std::string& response,
                                             std::chrono::milliseconds timeout) {
  std::lock_guard<std::mutex> lock(requestMutex);
  Ref<Http::ClientRequest> request;
  Http::CreateHttpRequest(Http::Get, url, request);
  if (LogsAt(logger, 5)) {
    Service::LogInternal(logger, 5, "SESSION_TOKEN: %1 _jwt: %2",
                         sessionToken ? *sessionToken : std::string("no value"), _jwt);
  }
  SetAuthentication(*request, sessionToken, _jwt);
  request->SetHeader("Accept", "application/json");

  Ref<Http::ClientResponse> answer;
  int result = _bmc_con->SendRequestToProxy(url, request, answer, Http::Get, timeout);
  if (!answer) return result;

  uint64_t size = kDefaultGetBufferSize;
  if (auto length = answer->GetHeader("Content-Length")) {
    const std::string text(*length);
    if (LogsAt(logger, 5))
      Service::LogInternal(logger, 5, "[ClientResponse::Content-Length] %1", text);
    size = std::stoull(text);  // junk raises std::invalid_argument / std::out_of_range
  }
  // The platform has already held the whole body within its own size limit,
  // so a length beyond what a read can take is capped rather than allocated.
  const uint32_t capacity = static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX / 2));
  std::vector<char> buffer(capacity, '\0');
  for (;;) {
    int32_t n = answer->ReadBody(buffer.data(), capacity);
    if (n < 0) break;
    response.append(buffer.data(), static_cast<size_t>(n));
  }
  if (LogsAt(logger, 5)) {
    Service::LogInternal(logger, 5, "[ClientResponse::Read] Read %1 bytes%2",
                         static_cast<int32_t>(response.size()),
                         result == RedfishStatusOk ? std::string() : "\n'" + response + "'");
  }
  if (result == Http::ResponseCode::Unauthorized) result = RedfishStatusUnauthorized;
  return result;
}

int BmcRedfishConnection::MakeHttpRequestPost(const std::string& url, const std::string& body,
                                              std::string& response, bool skipAuth,
                                              std::chrono::milliseconds timeout) {
  std::lock_guard<std::mutex> lock(requestMutex);
  Ref<Http::ClientRequest> request;
  Http::CreateHttpRequest(Http::Post, url, request);
  if (!skipAuth) SetAuthentication(*request, sessionToken, _jwt);
  request->SetHeader("Content-Type", "application/json");
  request->SetBody(body.data(), static_cast<uint32_t>(body.size()));

  Ref<Http::ClientResponse> answer;
  int result = _bmc_con->SendRequestToProxy(url, request, answer, Http::Post, timeout);
  if (result == Http::ResponseCode::ServiceUnavailable) {
    if (answer) {
      if (auto retryAfter = answer->GetHeader("Retry-After"); retryAfter && LogsAt(logger, 5)) {
        Service::LogInternal(logger, 5, "[ClientResponse::Retry-After] %1", *retryAfter);
      }
    }
    return result;
  }
  if (!answer) return result;

  int32_t count = 0;
  response = ReadOnce(*answer, logger, count);
  if (result == Http::ResponseCode::Created) {
    if (auto location = answer->GetHeader("Location"); location && LogsAt(logger, 5)) {
      Service::LogInternal(logger, 5, "[ClientResponse::LOCATION] %1", *location);
    }
    result = RedfishStatusOk;
  } else if (result == Http::ResponseCode::Unauthorized) {
    result = RedfishStatusUnauthorized;
  }
  return result;
}

int BmcRedfishConnection::MakeHttpRequestDelete(const std::string& url, std::string& response,
                                                std::chrono::milliseconds timeout) {
  std::lock_guard<std::mutex> lock(requestMutex);
  Ref<Http::ClientRequest> request;
  Http::CreateHttpRequest(Http::Delete, url, request);
  SetAuthentication(*request, sessionToken, _jwt);

  Ref<Http::ClientResponse> answer;
  int result = _bmc_con->SendRequestToProxy(url, request, answer, Http::Delete, timeout);
  if (answer) {
    int32_t count = 0;
    response = ReadOnce(*answer, logger, count);
    if (result == Http::ResponseCode::Unauthorized) result = RedfishStatusUnauthorized;
  }
  return result;
}

}  // namespace redfish
