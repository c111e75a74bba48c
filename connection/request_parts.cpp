#include "connection/request_parts.h"

#include <algorithm>
#include <vector>

#include "connection/request_target.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Http = Tessel::Http;

namespace {

constexpr uint32_t kDefaultGetBufferSize = 2048;
// A larger body is read in several passes rather than into one buffer sized
// by whatever Content-Length the answer claims.
constexpr uint64_t kMaxGetBufferSize = 1 << 20;

// Content-Length as a buffer size: digits only, else the default size.
uint64_t BufferSizeFor(std::string_view length) {
  if (length.empty() || length.size() > 19) return kDefaultGetBufferSize;
  uint64_t size = 0;
  for (char c : length) {
    if (c < '0' || c > '9') return kDefaultGetBufferSize;
    size = size * 10 + static_cast<uint64_t>(c - '0');
  }
  return std::min(size, kMaxGetBufferSize);
}

}  // namespace

int CreateRequest(Http::HttpMethod method, const std::string& url, Tessel::Service::Logger* logger,
                  Tessel::Ref<Http::ClientRequest>& request) {
  // The client checks the rest of the target itself; the reason is looked up
  // only for a refused one.
  const char* problem = ProxyProblem(url);
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

void SetAuthentication(Http::ClientRequest& request, const std::optional<std::string>& token,
                       const std::string& jwt) {
  if (token) {
    request.SetHeader("X-Auth-Token", *token);
  } else {
    request.SetHeader("Authorization", "Basic " + jwt);
  }
}

void ReadWholeBody(Http::ClientResponse& response, std::optional<std::string_view> contentLength,
                   std::string& out) {
  const auto capacity =
      static_cast<uint32_t>(contentLength ? BufferSizeFor(*contentLength) : kDefaultGetBufferSize);
  std::vector<char> buffer(capacity, '\0');
  for (;;) {
    const int32_t n = response.ReadBody(buffer.data(), capacity);
    if (n < 0) break;
    out.append(buffer.data(), static_cast<size_t>(n));
  }
}

int Answered(int result, const std::string& body) {
  if (result > 0 && result < 1000) NoteAnswer(result, body);
  return result == Http::ResponseCode::Unauthorized ? RedfishStatusUnauthorized : result;
}

}  // namespace redfish
