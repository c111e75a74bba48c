#include <rapidjson/document.h>
#include <rapidjson/pointer.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <vector>

#include "transport/bmc_http_connection.h"
#include "utils/failure_record.h"
#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

using Tessel::Ref;
namespace Http = Tessel::Http;
namespace Service = Tessel::Service;

namespace {

constexpr char kConfigHost[] = "localhost";
constexpr int kConfigPort = 549;
constexpr char kBmcApiJsonPath[] = "/portico/config/json/bmcApi.json";
constexpr char kAddressPointer[] =
    "/proxy_configuration/clusters/0/endpoints/0/socket_address/address";
// The route file is small; a longer document is cut here and fails to parse.
constexpr uint32_t kMaxDocumentBytes = 2048;
// The configuration endpoint is a local service: one that hangs should cost a
// first call (which holds the registry lock meanwhile) little, not the
// platform's 10 s default.
constexpr int64_t kConfigExchangeTimeoutUs = 2000000;

// Used when the proxy has no route document yet: local clients only, "/bmc/"
// rewritten to "/" and sent to the BMC on port 443.
const std::string kBmcApiJsonTemplate = R"({
      "proxy_configuration": {
         "listeners": [{
            "name": "ALL_HTTP_LISTENERS",
            "filter_chains": [{
               "filter_chain_match": {
                  "source_type": "LOCAL"
               },
               "filters": [{
                  "config": {
                     "route_config": {
                        "virtual_hosts": [{
                           "routes": [{
                              "route": {
                                 "cluster": "bmc-cluster",
                                 "prefix_rewrite": "/"
                              },
                              "match": {
                                 "prefix": "/bmc/"
                              }
                           }]
                        }]
                     }
                  }
               }]
            }]
         }],
         "clusters": [{
            "name": "bmc-cluster",
            "type": "STRICT_DNS",
            "endpoints": [{
               "socket_address": {
                  "address": "",
                  "port_value": 443
               }
            }],
            "tls_context": {
            },
            "typed_extension_protocol_options": {
               "upstreams_http_protocol_options": {
                  "auto_config": {
                  }
               }
            }
         } ]
      }
   })";

// One exchange with the configuration endpoint, on an agent of its own.
Ref<Http::ClientResponse> ConfigExchange(Http::HttpMethod method, const std::string* body) {
  Ref<Http::ConnectionSpec> spec;
  Http::CreateTCPConnectionSpec(kConfigHost, kConfigPort, false, {}, spec);
  Ref<Http::HttpUserAgent> agent = Http::CreateHttpUserAgent(spec.Get());
  Ref<Http::ClientRequest> request;
  Http::CreateHttpRequest(method, kBmcApiJsonPath, request);
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

int ConfigEndpointFailure(int result, const std::string& detail) {
  NoteFailure(REDFISH_LINK_CONFIG_ENDPOINT, result, detail);
  return result;
}

}  // namespace

int BmcHttpConnection::UpdateBmcApiJson(const std::string& host) {
  std::lock_guard<std::mutex> lock(gMutex);
  if (_bmcJsonUpdated.load()) return RedfishStatusOk;

  std::string address = host;
  if (host.empty()) {
    int result = BmcIpFromSmbios(address);
    if (result != RedfishStatusOk) return result;
  }

  std::string text;
  try {
    NoteExchange("GET", kBmcApiJsonPath);
    const Ref<Http::ClientResponse> response = ConfigExchange(Http::Get, nullptr);
    const Http::ClientResponse::Status status = response->GetStatus();
    if (status.code == Http::ResponseCode::Ok) {
      TESSEL_LOG(_logger, 5, "GET of %1 was successful (%2)", kBmcApiJsonPath, status.reason);
      std::vector<char> buffer(kMaxDocumentBytes);
      int32_t n = response->ReadBody(buffer.data(), kMaxDocumentBytes);
      if (n > 0) text.assign(buffer.data(), static_cast<size_t>(n));
    } else {
      TESSEL_LOG(_logger, 3, "GET request failed: %1", status.reason);
      if (status.code != Http::ResponseCode::NotFound) {
        return ConfigEndpointFailure(status.code, "answered " + std::to_string(status.code) + " " +
                                                      status.reason + " to the read");
      }
      text = kBmcApiJsonTemplate;
    }
  } catch (const Tessel::Exception& e) {
    TESSEL_LOG(_logger, 3, "GET request error: %1", e.what());
    return ConfigEndpointFailure(RedfishStatusSystemError, e.what());
  }

  rapidjson::Document document;
  ParseJson(document, text);
  const rapidjson::Pointer pointer(kAddressPointer);
  rapidjson::Value* value = document.HasParseError() ? nullptr : pointer.Get(document);
  if (value == nullptr) {
    NoteFailure(REDFISH_LINK_ROUTE_DOCUMENT, RedfishStatusDocumentIncomplete,
                document.HasParseError() ? "the route document is not JSON"
                                         : "the route document has no endpoint address");
    return RedfishStatusDocumentIncomplete;
  }

  // A value that is not a string is treated as a mismatch and overwritten.
  const std::string current =
      value->IsString() ? std::string(value->GetString(), value->GetStringLength()) : std::string();
  TESSEL_LOG(_logger, 5, "[UpdateBmcApiJson::UpdatedJson] address: %1", current);
  if (value->IsString() && current == address) {
    // The wording is kept also when the address came from the caller.
    TESSEL_LOG(_logger, 5, "[UpdateBmcApiJson::UpdatedJson] address matches ZIRN redfishInfo");
    _bmcJsonUpdated.store(true);
    return RedfishStatusOk;
  }

  value->SetString(address.c_str(), static_cast<rapidjson::SizeType>(address.size()),
                   document.GetAllocator());
  rapidjson::StringBuffer compact;
  rapidjson::Writer<rapidjson::StringBuffer> writer(compact);
  // The writer stops at a value JSON cannot hold (a number that parsed to
  // infinity); what it wrote by then is not a document to PUT.
  if (!document.Accept(writer)) {
    TESSEL_LOG(_logger, 3, "Cannot serialise %1 after setting the address", kBmcApiJsonPath);
    NoteFailure(REDFISH_LINK_ROUTE_DOCUMENT, RedfishStatusBadJson,
                "the route document cannot be written back as JSON");
    return RedfishStatusBadJson;
  }

  try {
    const std::string body(compact.GetString(), compact.GetSize());
    NoteExchange("PUT", kBmcApiJsonPath);
    const Ref<Http::ClientResponse> response = ConfigExchange(Http::Put, &body);
    const Http::ClientResponse::Status status = response->GetStatus();
    if (status.code != Http::ResponseCode::NoContent) {
      TESSEL_LOG(_logger, 3, "PUT request failed: %1", status.reason);
      return ConfigEndpointFailure(status.code, "answered " + std::to_string(status.code) + " " +
                                                    status.reason + " to the write");
    }
    // The design's wording: it says POST although the request is a PUT.
    TESSEL_LOG(_logger, 5, "POST of %1 was successful (%2)", kBmcApiJsonPath, status.reason);
  } catch (const Tessel::Exception& e) {
    TESSEL_LOG(_logger, 3, "PUT request error: %1", e.what());
    return ConfigEndpointFailure(RedfishStatusSystemError, e.what());
  }
  _bmcJsonUpdated.store(true);
  return RedfishStatusOk;
}

}  // namespace redfish
