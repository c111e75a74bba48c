#include "connection/bmc_redfish_connection.h"

#include "platform/mirel/base64.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;

PublishedPtr<BmcHttpConnection> BmcRedfishConnection::_bmc_con;

namespace {
constexpr size_t kCredentialBufferSize = 512;
constexpr char kBaseUrl[] = "/bmc";
}  // namespace

BmcRedfishConnection::BmcRedfishConnection(const std::string& host, const std::string& user,
                                           const std::string& password,
                                           const Tessel::Ref<Service::Logger>& logger)
    : host(host), user(user), password(password), logger(logger.Get()) {
  _bmc_con = BmcHttpConnection::GetInstance(logger);
  int result = _bmc_con->UpdateBmcApiJson(host);
  if (result != RedfishStatusOk) {
    if (LogsAt(this->logger, 3))
      Service::LogInternal(this->logger, 3, "Failed to update bmcApi.json.");
    throw result;
  }
  baseUrl = GetHttpUrl();
  if (!EncodeUserPass(user, password)) {
    if (LogsAt(this->logger, 3)) {
      Service::LogInternal(this->logger, 3, "Failed to encode username and password.");
    }
    // Thrown as the status type, not int: the registry lets it reach the caller.
    throw RedfishStatusCredentialsEncoding;
  }
  result = CreateSession();
  if (result != RedfishStatusOk) {
    if (LogsAt(this->logger, 3))
      Service::LogInternal(this->logger, 3, "Failed to create a redfish session.");
    throw result;
  }
}

BmcRedfishConnection::~BmcRedfishConnection() { DeleteSession(); }

bool BmcRedfishConnection::EncodeUserPass(const std::string& user, const std::string& password) {
  const std::string text = user + ":" + password;
  char buffer[kCredentialBufferSize] = {};
  size_t outLength = 0;
  bool encoded = Base64_Encode(text.data(), text.size(), buffer, kCredentialBufferSize, &outLength);
  if (outLength > kCredentialBufferSize - 1) {
    if (LogsAt(logger, 3)) {
      Service::LogInternal(logger, 3,
                           "Insufficient buffer size to capture encoded username and password");
    }
    return false;
  }
  if (!encoded) {
    if (LogsAt(logger, 3))
      Service::LogInternal(logger, 3, "Failed to encode username and password");
    return false;
  }
  _jwt = buffer;
  return true;
}

std::string BmcRedfishConnection::GetHttpUrl() { return kBaseUrl; }

bool BmcRedfishConnection::IsSessionActive() {
  return !sessionLocation.empty() && sessionToken.has_value();
}

// Token sessions are not used: every request carries Basic credentials.
int BmcRedfishConnection::CreateSession() { return RedfishStatusOk; }
int BmcRedfishConnection::DeleteSession() { return RedfishStatusOk; }
int BmcRedfishConnection::RefreshSession(int value) { return value; }

}  // namespace redfish
