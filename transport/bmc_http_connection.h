#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "platform/export.h"
#include "platform/tessel/http.h"
#include "platform/tessel/logging.h"
#include "platform/tessel/ref.h"
#include "utils/lazy_ref.h"

namespace redfish {

// The process-wide road to the BMC: an HTTP/2 pool to the local proxy, the
// proxy's route to the BMC, and the BMC's address from SMBIOS. Created once,
// freed only when the library is unloaded (ReleaseBmcHttpConnection).
class BMCREDFISH_EXPORT BmcHttpConnection {
 public:
  BmcHttpConnection();

  static BmcHttpConnection* GetInstance(const Tessel::Ref<Tessel::Service::Logger>& logger);

  Tessel::Http::ConnectionSpec* GetConnectionSpec();
  Tessel::Http::HttpConnectionPool* GetHttp2ConnectionPool();
  Tessel::Http::HttpConnectionPool* GetConnectionPool();
  Tessel::Ref<Tessel::Http::HttpUserAgent> CreateUserAgent(Tessel::Http::CookieStore* cookies);
  Tessel::Ref<Tessel::Http::HttpUserAgent> CreateUserAgent();

  // Sends a prepared request through the proxy. Returns 0 for status 200, any
  // other status as it is, or 10001..10005 for transport failures.
  int SendRequestToProxy(const std::string& url, Tessel::Ref<Tessel::Http::ClientRequest>& request,
                         Tessel::Ref<Tessel::Http::ClientResponse>& response,
                         Tessel::Http::HttpMethod method, std::chrono::milliseconds timeout);

  // The BMC's IPv4 address from the SMBIOS Redfish host-interface record.
  int BmcIpFromSmbios(std::string& ip);

  // Makes the proxy's route document name the BMC (host, or the SMBIOS address
  // when host is empty); does its work once per process.
  int UpdateBmcApiJson(const std::string& host);

  static std::atomic<BmcHttpConnection*> instance;
  static Tessel::Ref<Tessel::Service::Logger> _logger;
  static std::mutex gMutex;
  static std::atomic<bool> _bmcJsonUpdated;

 private:
  LazyRef<Tessel::Http::ConnectionSpec> spec_;
  LazyRef<Tessel::Http::HttpConnectionPool> pool_;
};

// Frees the singleton with its ConnectionSpec and pool. Only for the library's
// finaliser, once no connection is left to use them; a later GetInstance
// would create a new one.
void ReleaseBmcHttpConnection() noexcept;

}  // namespace redfish
