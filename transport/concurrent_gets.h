#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/tessel/http.h"
#include "platform/tessel/ref.h"

namespace redfish {

class BmcHttpConnection;

// One GET of a batch: the prepared request in, the answer and result out.
struct ProxyGet {
  std::string url;  // for the log lines and the failure record
  Tessel::Ref<Tessel::Http::ClientRequest> request;
  Tessel::Ref<Tessel::Http::ClientResponse> response;  // set when an answer arrived
  int result = 0;  // 0 for 200, the HTTP status, or a transport code (10001..10005)
};

// Sends the GETs through the proxy on the shared pool, at most maxInFlight
// waiting at once, each answered within timeout; the answers are taken in
// order. Failures are logged and mapped as a single send's are; a failure
// of one GET does not stop the others.
void SendConcurrently(BmcHttpConnection& transport, std::vector<ProxyGet>& gets, size_t maxInFlight,
                      std::chrono::milliseconds timeout);

}  // namespace redfish
