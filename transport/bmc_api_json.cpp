#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "transport/bmc_http_connection.h"
#include "transport/route_document.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Http = Tessel::Http;

namespace {

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
    NoteExchange("GET", kRouteDocumentPath);
    const Http::ClientResponse::Status status = ReadRouteDocument(text);
    if (status.code == Http::ResponseCode::Ok) {
      TESSEL_LOG(_logger, 5, "GET of %1 was successful (%2)", kRouteDocumentPath, status.reason);
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
  rapidjson::Value* socket = RouteSocketAddress(document, text);
  rapidjson::Value* value = socket != nullptr ? &(*socket)["address"] : nullptr;
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
    TESSEL_LOG(_logger, 3, "Cannot serialise %1 after setting the address", kRouteDocumentPath);
    NoteFailure(REDFISH_LINK_ROUTE_DOCUMENT, RedfishStatusBadJson,
                "the route document cannot be written back as JSON");
    return RedfishStatusBadJson;
  }

  try {
    const std::string body(compact.GetString(), compact.GetSize());
    NoteExchange("PUT", kRouteDocumentPath);
    const Http::ClientResponse::Status status = WriteRouteDocument(body);
    if (status.code != Http::ResponseCode::NoContent) {
      TESSEL_LOG(_logger, 3, "PUT request failed: %1", status.reason);
      return ConfigEndpointFailure(status.code, "answered " + std::to_string(status.code) + " " +
                                                    status.reason + " to the write");
    }
    // The design's wording: it says POST although the request is a PUT.
    TESSEL_LOG(_logger, 5, "POST of %1 was successful (%2)", kRouteDocumentPath, status.reason);
  } catch (const Tessel::Exception& e) {
    TESSEL_LOG(_logger, 3, "PUT request error: %1", e.what());
    return ConfigEndpointFailure(RedfishStatusSystemError, e.what());
  }
  _bmcJsonUpdated.store(true);
  return RedfishStatusOk;
}

}  // namespace redfish
