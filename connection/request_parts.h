#pragma once

// The pieces every request of a connection is made of: the target check, the
// credentials, the body read and the result of an answered request.

#include <optional>
#include <string>
#include <string_view>

#include "platform/tessel/http.h"
#include "platform/tessel/logging.h"

namespace redfish {

// Builds the request unless its target, made from ids the BMC chose or a
// caller's path, could leave the proxy's BMC route or is longer than the
// proxy takes (which would end the connection other callers share); a
// refused target is never sent (10002, after a level-3 line and a failure
// note).
int CreateRequest(Tessel::Http::HttpMethod method, const std::string& url,
                  Tessel::Service::Logger* logger,
                  Tessel::Ref<Tessel::Http::ClientRequest>& request);

// Basic credentials, or the session token when one is engaged.
void SetAuthentication(Tessel::Http::ClientRequest& request,
                       const std::optional<std::string>& token, const std::string& jwt);

// Appends the whole body to out, read in buffers sized by the answer's
// Content-Length (a hint only: the platform has the body already).
void ReadWholeBody(Tessel::Http::ClientResponse& response,
                   std::optional<std::string_view> contentLength, std::string& out);

// The result of an answered request: 401 means the credentials were refused.
// A failed answer's body tells who answered (the BMC or the proxy).
int Answered(int result, const std::string& body);

}  // namespace redfish
