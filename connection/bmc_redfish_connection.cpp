#include "connection/bmc_redfish_connection.h"

#include "connection/request_parts.h"
#include "platform/mirel/base64.h"
#include "resources/bmc_requests.h"
#include "resources/chassis.h"
#include "resources/inventory.h"
#include "resources/managers.h"
#include "resources/systems.h"
#include "transport/concurrent_gets.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

using std::chrono::milliseconds;

PublishedPtr<BmcHttpConnection> BmcRedfishConnection::_bmc_con;

namespace {
constexpr size_t kCredentialBufferSize = 512;
constexpr char kBaseUrl[] = "/bmc";

// The connection's requests as the resource code uses them: always with the
// credentials.
class ConnectionRequests final : public BmcRequests {
 public:
  ConnectionRequests(BmcRedfishConnection& connection, Tessel::Service::Logger* logger,
                     const std::string& baseUrl, const std::string& jwt,
                     const std::optional<std::string>& token)
      : connection_(connection), logger_(logger), baseUrl_(baseUrl), jwt_(jwt), token_(token) {}

  int Get(const std::string& target, std::string& body, milliseconds timeout) override {
    return connection_.MakeHttpRequestGet(target, body, timeout);
  }
  int Post(const std::string& target, const std::string& body, std::string& response,
           milliseconds timeout) override {
    return connection_.MakeHttpRequestPost(target, body, response, false, timeout);
  }
  void GetConcurrently(const std::vector<std::string>& targets, size_t maxInFlight,
                       milliseconds timeout, std::vector<int>& results,
                       std::vector<std::string>& bodies) override;
  Tessel::Service::Logger* Logger() const override { return logger_; }
  const std::string& BaseUrl() const override { return baseUrl_; }

 private:
  BmcRedfishConnection& connection_;
  Tessel::Service::Logger* logger_;
  const std::string& baseUrl_;
  const std::string& jwt_;
  const std::optional<std::string>& token_;
};

void ConnectionRequests::GetConcurrently(const std::vector<std::string>& targets,
                                         size_t maxInFlight, milliseconds timeout,
                                         std::vector<int>& results,
                                         std::vector<std::string>& bodies) {
  results.assign(targets.size(), RedfishStatusOk);
  bodies.assign(targets.size(), std::string());
  std::vector<ProxyGet> gets;
  std::vector<size_t> sent;  // the index in targets of each of gets
  for (size_t i = 0; i < targets.size(); ++i) {
    ProxyGet get{targets[i], {}, {}, RedfishStatusOk};
    results[i] = CreateRequest(Tessel::Http::Get, targets[i], logger_, get.request);
    if (results[i] != RedfishStatusOk) continue;
    SetAuthentication(*get.request, token_, jwt_);
    get.request->SetHeader("Accept", "application/json");
    gets.push_back(std::move(get));
    sent.push_back(i);
  }
  SendConcurrently(*BmcRedfishConnection::_bmc_con.Get(), gets, maxInFlight, timeout);
  for (size_t k = 0; k < gets.size(); ++k) {
    ProxyGet& get = gets[k];
    std::string& body = bodies[sent[k]];
    if (get.response) ReadWholeBody(*get.response, get.response->GetHeader("Content-Length"), body);
    TESSEL_LOG(logger_, 5, "GET %1: %2, %3 bytes", get.url, get.result, body.size());
    results[sent[k]] = get.response ? Answered(get.result, body) : get.result;
  }
}

}  // namespace

BmcRedfishConnection::BmcRedfishConnection(const std::string& host, const std::string& user,
                                           const std::string& password,
                                           const Tessel::Ref<Tessel::Service::Logger>& logger)
    : host_(host), user_(user), password_(password), logger_(logger.Get()) {
  _bmc_con = BmcHttpConnection::GetInstance(logger);
  int result = _bmc_con->UpdateBmcApiJson(host);
  if (result != RedfishStatusOk) {
    TESSEL_LOG(logger_, 3, "Failed to update bmcApi.json.");
    throw result;
  }
  baseUrl_ = GetHttpUrl();
  if (!EncodeUserPass(user, password)) {
    TESSEL_LOG(logger_, 3, "Failed to encode username and password.");
    NoteFailure(REDFISH_LINK_CREDENTIALS, RedfishStatusCredentialsEncoding,
                "the user name and password are too long to encode");
    // Thrown as the status type, not int: the registry lets it reach the caller.
    throw RedfishStatusCredentialsEncoding;
  }
  result = CreateSession();
  if (result != RedfishStatusOk) {
    TESSEL_LOG(logger_, 3, "Failed to create a redfish session.");
    throw result;
  }
  requests_ = std::make_unique<ConnectionRequests>(*this, logger_, baseUrl_, _jwt, sessionToken_);
  inventory_ = std::make_unique<Inventory>(*requests_);
}

BmcRedfishConnection::~BmcRedfishConnection() { DeleteSession(); }

bool BmcRedfishConnection::EncodeUserPass(const std::string& user, const std::string& password) {
  const std::string text = user + ":" + password;
  char buffer[kCredentialBufferSize] = {};
  size_t outLength = 0;
  bool encoded = Base64_Encode(text.data(), text.size(), buffer, kCredentialBufferSize, &outLength);
  if (outLength > kCredentialBufferSize - 1) {
    TESSEL_LOG(logger_, 3, "Insufficient buffer size to capture encoded username and password");
    return false;
  }
  if (!encoded) {
    TESSEL_LOG(logger_, 3, "Failed to encode username and password");
    return false;
  }
  _jwt = buffer;
  return true;
}

std::string BmcRedfishConnection::GetHttpUrl() { return kBaseUrl; }

bool BmcRedfishConnection::IsSessionActive() {
  return !sessionLocation_.empty() && sessionToken_.has_value();
}

// Placeholders of a token session: their results are part of the design.
int BmcRedfishConnection::CreateSession() { return RedfishStatusOk; }
int BmcRedfishConnection::DeleteSession() { return RedfishStatusOk; }
int BmcRedfishConnection::RefreshSession(int value) { return value; }

Inventory& InventoryOf(BmcRedfishConnection& connection) { return *connection.inventory_; }

int BmcRedfishConnection::PopulateSystems(milliseconds timeout) {
  return inventory_->PopulateSystems(timeout);
}

int BmcRedfishConnection::PopulateManagers(milliseconds timeout) {
  return inventory_->PopulateManagers(timeout);
}

int BmcRedfishConnection::PopulateChassis(milliseconds timeout) {
  return inventory_->PopulateChassis(timeout);
}

int BmcRedfishConnection::ParseManufacturer(RedfishSystem& system, milliseconds timeout) {
  return ReadManufacturer(*inventory_, system, timeout);
}

int BmcRedfishConnection::ParseRedfishPowerActions(const std::string& json, RedfishSystem& system,
                                                   RedfishOem oem) {
  return ReadPowerActions(*inventory_, json, system, oem);
}

int BmcRedfishConnection::GetSystemPowerState(std::string& powerState, milliseconds timeout,
                                              uint8_t systemIndex) {
  return ReadPowerState(*inventory_, powerState, timeout, systemIndex);
}

int BmcRedfishConnection::PowerOperation(REDFISHCMD command, milliseconds timeout,
                                         uint8_t systemIndex) {
  return SendPowerCommand(*inventory_, command, timeout, systemIndex);
}

int BmcRedfishConnection::GetManagerEthernetNicCount(uint8_t managerIndex, uint8_t& nicCount,
                                                     milliseconds timeout) {
  return NicCount(*inventory_, managerIndex, nicCount, timeout);
}

int BmcRedfishConnection::GetManagerEthernetMac(std::string& mac, milliseconds timeout,
                                                uint8_t managerIndex, uint8_t nicIndex) {
  return ReadMac(*inventory_, mac, timeout, managerIndex, nicIndex);
}

int BmcRedfishConnection::GetChassisSensorInfo(std::string& sensorJson, milliseconds timeout,
                                               uint8_t chassisIndex) {
  return ReadSensorInfo(*inventory_, sensorJson, timeout, chassisIndex);
}

}  // namespace redfish
