#include "transport/route_document.h"

#include <rapidjson/pointer.h>

#include <vector>

#include "utils/json_access.h"

namespace redfish {

using Tessel::Ref;
namespace Http = Tessel::Http;

namespace {

constexpr char kConfigHost[] = "localhost";
constexpr int kConfigPort = 549;
constexpr char kSocketAddressPointer[] =
    "/proxy_configuration/clusters/0/endpoints/0/socket_address";
constexpr uint32_t kMaxDocumentBytes = 2048;
// The configuration endpoint is a local service: one that hangs should cost a
// first call (which holds the registry lock meanwhile) little, not the
// platform's 10 s default.
constexpr int64_t kConfigExchangeTimeoutUs = 2000000;

// One exchange with the configuration endpoint, on an agent of its own.
Ref<Http::ClientResponse> ConfigExchange(Http::HttpMethod method, const std::string* body) {
  Ref<Http::ConnectionSpec> spec;
  Http::CreateTCPConnectionSpec(kConfigHost, kConfigPort, false, {}, spec);
  Ref<Http::HttpUserAgent> agent = Http::CreateHttpUserAgent(spec.Get());
  Ref<Http::ClientRequest> request;
  Http::CreateHttpRequest(method, kRouteDocumentPath, request);
  if (body != nullptr) {
    request->SetBody(body->data(), static_cast<uint32_t>(body->size()));
    request->SetHeader("Content-Type", "application/json");
  }
  Ref<Http::PendingExchange> handle;
  agent->AsyncSendRequest(request.Get(), {}, handle);
  Ref<Http::ClientResponse> response;
  agent->WaitForResponse(handle.Get(), kConfigExchangeTimeoutUs, response);
  return response;
}

}  // namespace

Http::ClientResponse::Status ReadRouteDocument(std::string& text) {
  const Ref<Http::ClientResponse> response = ConfigExchange(Http::Get, nullptr);
  Http::ClientResponse::Status status = response->GetStatus();
  text.clear();
  if (status.code == Http::ResponseCode::Ok) {
    std::vector<char> buffer(kMaxDocumentBytes);
    const int32_t n = response->ReadBody(buffer.data(), kMaxDocumentBytes);
    if (n > 0) text.assign(buffer.data(), static_cast<size_t>(n));
  }
  return status;
}

Http::ClientResponse::Status WriteRouteDocument(const std::string& text) {
  return ConfigExchange(Http::Put, &text)->GetStatus();
}

rapidjson::Value* RouteSocketAddress(rapidjson::Document& document, const std::string& text) {
  ParseJson(document, text);
  if (document.HasParseError()) return nullptr;
  rapidjson::Value* socket = rapidjson::Pointer(kSocketAddressPointer).Get(document);
  return socket != nullptr && JsonMember(*socket, "address") != nullptr ? socket : nullptr;
}

}  // namespace redfish
