#pragma once

// A Redfish document fetched and parsed in one step, as the resource walks and
// reads need it.

#include <chrono>
#include <string>

#include <rapidjson/document.h>

namespace redfish {

class BmcRequests;

// How a fetched body is checked. Plain parsing logs nothing (a bad body then
// has a null root); verifying logs a Redfish error or a bad body, and for a
// collection insists on "Members" (BmcRedfishUtils::VerifyJson).
enum class BodyCheck { Parse, Verify, Collection };

// A fetched body as sent, and parsed. Most Redfish answers parse within the
// pool here, without a heap chunk of the parser's own.
struct FetchedDocument {
  std::string body;
  char pool[2048];
  rapidjson::MemoryPoolAllocator<> allocator{pool, sizeof pool};
  rapidjson::Document document{&allocator};
};

// GETs uri, logging it under label first when one is given ("PowerState
// URI: %1"), and parses its body. Returns the GET's result, or VerifyJson's
// for the verifying checks.
int FetchDocument(BmcRequests& requests, const char* label, const std::string& uri,
                  std::chrono::milliseconds timeout, BodyCheck check, FetchedDocument& fetched);

}  // namespace redfish
