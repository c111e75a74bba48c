#include "result_text.h"

const char* ResultText(int code) {
  switch (code) {
    case 0:
      return "success";
    case 1:
      return "the host switch REDFISH is off";
    case 2:
      return "the BMC's manufacturer is not one the library knows (Dell, HPE, Lenovo)";
    case 10001:
      return "TLS verification of the server failed";
    case 10002:
      return "the HTTP client rejected an argument";
    case 10003:
      return "no answer within the time-out";
    case 10004:
      return "system error talking to the local proxy (is it running?)";
    case 10005:
      return "transport failure";
    case 20001:
      return "a document lacks a required value";
    case 20002:
      return "a response is not well-formed JSON";
    case 20003:
      return "a collection response has no Members array";
    case 20004:
      return "a response is not of the expected shape";
    case 30001:
      return "no BMC IPv4 address in the SMBIOS Redfish host-interface record";
    case 40001:
      return "no such member (or no BMC interface with that MAC)";
    case 40002:
      return "the BMC's MAC address is not the one given";
    case 40003:
      return "the system does not offer that power command";
    case 40004:
      return "the credentials are too long";
    case 40005:
      return "the BMC refused the credentials";
    case 40006:
      return "the BMC says the command needed no action";
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
