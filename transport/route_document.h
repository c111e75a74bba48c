#pragma once

#include <rapidjson/document.h>

#include <string>

#include "platform/tessel/http.h"

// The proxy's route document on its configuration endpoint (localhost:549):
// the exchanges and where the BMC's address sits in it. The library's route
// update uses these, and so does redfishctl doctor, which has to see the
// document exactly as the library will without ever writing it.
namespace redfish {

constexpr char kRouteDocumentPath[] = "/portico/config/json/bmcApi.json";

// One GET of the document; for a 200 answer, text receives at most its first
// 2048 bytes (a longer document is cut and fails to parse: the route file's
// size limit). Each exchange waits at most 2 s. Throws the platform's
// exceptions (Tessel::SystemException when nothing listens).
Tessel::Http::ClientResponse::Status ReadRouteDocument(std::string& text);

// One PUT of the document as JSON.
Tessel::Http::ClientResponse::Status WriteRouteDocument(const std::string& text);

// The endpoint's socket address object in text, parsed into document; null
// when the text is not JSON or has no first endpoint of the first cluster with
// an "address" (the one member the library rewrites).
rapidjson::Value* RouteSocketAddress(rapidjson::Document& document, const std::string& text);

}  // namespace redfish
