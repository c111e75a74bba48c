#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "connection/bmc_redfish_connection.h"
#include "connection/request_parts.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

using Tessel::Ref;
namespace Http = Tessel::Http;
namespace Service = Tessel::Service;

namespace {

// POST and DELETE answers are read once, into a buffer of this size.
constexpr uint32_t kSingleReadSize = 2048;

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

  std::optional<std::string_view> length = answer->GetHeader("Content-Length");
  if (length) TESSEL_LOG(logger_, 5, "[ClientResponse::Content-Length] %1", *length);
  ReadWholeBody(*answer, length, response);
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
