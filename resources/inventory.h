#pragma once

// Discovery of the BMC's collections, shared by the resources: each walks
// its own collection once with these.
//
// Threading: the vectors systems, managers and chassis are appended to only
// by PopulateOnce's visit, under populateMutex, while their flag is false;
// the flag is set under the same lock when a walk succeeds, and the vector
// never changes again. A caller whose Populate returned 0 may therefore read
// the records without any lock. Discovery never clears what an earlier,
// failed walk appended: a retry walks the whole collection again and the
// indices see both copies.

#include <chrono>
#include <functional>
#include <mutex>
#include <string>

#include "connection/bmc_redfish_connection.h"
#include "platform/tessel/logging.h"

namespace redfish {

using MemberVisit = std::function<int(const std::string& id)>;

// GETs a collection and hands each member's "@odata.id" to visit, in order.
// Stops at the first failure, visit's included.
int WalkCollection(BmcRedfishConnection& connection, Tessel::Service::Logger* logger,
                   const std::string& uri, std::chrono::milliseconds timeout,
                   const MemberVisit& visit);

// One discovery walk of a collection under the populate mutex, unless an
// earlier walk succeeded; marks success. A free function, so that it stays
// out of the exported class.
int PopulateOnce(BmcRedfishConnection& connection, std::mutex& populateMutex, bool& populated,
                 Tessel::Service::Logger* logger, const std::string& uri,
                 std::chrono::milliseconds timeout, const MemberVisit& visit);

// A member's sub-collection URI; the member and the URI are logged as
// discovery goes ("Manager: …", "EthernetInterfaces: …").
std::string ChildUri(Tessel::Service::Logger* logger, const std::string& baseUrl, const char* kind,
                     const std::string& id, const char* child);

// GETs one inventory document, logging its URI under the caller's label
// ("PowerState URI: %1") first.
inline int FetchLogged(BmcRedfishConnection& connection, Tessel::Service::Logger* logger,
                       const char* label, const std::string& uri, std::string& body,
                       std::chrono::milliseconds timeout) {
  Tessel::Service::LogInternal(logger, 5, label, uri);
  return connection.MakeHttpRequestGet(uri, body, timeout);
}

}  // namespace redfish
