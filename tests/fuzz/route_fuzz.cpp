// libFuzzer target: the proxy's route document through the route update.
// Traps when an exception escapes or a PUT body is not JSON naming the BMC.
#include <rapidjson/document.h>
#include <rapidjson/pointer.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fakes/fake_http.h"
#include "transport/bmc_http_connection.h"

namespace {

constexpr char kAddress[] = "127.0.42.1";

void CheckPut(const std::string& body) {
  rapidjson::Document document;
  document.Parse(body.c_str(), body.size());
  if (document.HasParseError()) __builtin_trap();
  const rapidjson::Value* address =
      rapidjson::Pointer("/proxy_configuration/clusters/0/endpoints/0/socket_address/address")
          .Get(document);
  if (address == nullptr || !address->IsString() || std::string(address->GetString()) != kAddress) {
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string document(reinterpret_cast<const char*>(data), size);
  fake_http::SetHandler([&document](const fake_http::Request& r) {
    if (r.method == Tessel::Http::Put) {
      CheckPut(r.body);
      return fake_http::Json(204, "");
    }
    return fake_http::Json(200, document);
  });
  try {
    redfish::BmcHttpConnection::_bmcJsonUpdated.store(false);
    redfish::BmcHttpConnection* transport = redfish::BmcHttpConnection::GetInstance({});
    transport->UpdateBmcApiJson(kAddress);
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
