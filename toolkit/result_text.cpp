#include "toolkit/result_text.h"

#include "bmcredfish.h"

namespace toolkit {

const char* ResultText(int code) {
  switch (code) {
#define RESULT_TEXT_CASE(name, value, text) \
  case name:                                \
    return text;
    BMCREDFISH_RESULT_CODES(RESULT_TEXT_CASE)
#undef RESULT_TEXT_CASE
    case 204:
      return "HTTP 204 No Content (this vendor's success for a reset is not 200)";
    case 400:
      return "HTTP 400 Bad Request";
    case 401:
      return "HTTP 401 Unauthorized";
    case 404:
      return "HTTP 404 Not Found";
    case 409:
      return "HTTP 409 Conflict";
    case 500:
      return "HTTP 500 Internal Server Error";
    case 502:
      return "HTTP 502 Bad Gateway (the proxy cannot reach the BMC)";
    case 503:
      return "HTTP 503 Service Unavailable";
    default:
      return code >= 100 && code < 600 ? "HTTP status from the BMC or proxy" : "unknown result";
  }
}

}  // namespace toolkit
