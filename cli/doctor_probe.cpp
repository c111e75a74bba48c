#include "doctor_probe.h"

#include <algorithm>
#include <cerrno>

#include "platform/mirel/zirn.h"
#include "platform/tessel/exception.h"
#include "toolkit/failure_text.h"
#include "toolkit/mac.h"
#include "transport/route_document.h"

HostInterfaces LibraryProbe::ReadHostInterfaces() {
  HostInterfaces result;
  std::vector<uint8_t> table;
  errno = 0;
  if (!SMBIOS_ReadTable(SMBIOS_SYSFS_ENTRY_POINT, SMBIOS_SYSFS_TABLE, table)) {
    result.readError = errno != 0 ? errno : EIO;
    return result;
  }
  constexpr size_t kMax = 16;
  result.found.resize(kMax);
  result.status = SMBIOS_ListHostInterfaces(table.data(), table.size(), result.found.data(), kMax,
                                            &result.count, &result.problem);
  result.found.resize(std::min(result.count, kMax));
  return result;
}

RouteRead LibraryProbe::ReadRoute() {
  RouteRead read;
  try {
    const Tessel::Http::ClientResponse::Status status = redfish::ReadRouteDocument(read.text);
    read.status = status.code;
    read.reason = status.reason;
  } catch (const Tessel::TimeoutException&) {
    read.kind = RouteRead::Kind::TimedOut;
  } catch (const Tessel::Exception& e) {
    read.kind = RouteRead::Kind::Failed;
    read.error = e.what();
  }
  return read;
}

int LibraryProbe::GetResource(const std::string& path, std::string& body) {
  char* json = nullptr;
  const int rc = Redfish_GetResource(o_.user.c_str(), o_.password.c_str(), Host(), path.c_str(),
                                     requestMs_(), &json);
  body = json != nullptr ? json : "";
  Redfish_FreeText(json);
  return rc;
}

int LibraryProbe::GetAllowedCommands(unsigned int& commands) {
  return Redfish_GetAllowedCommands(o_.user.c_str(), o_.password.c_str(), Host(), requestMs_(),
                                    &commands);
}

int LibraryProbe::GetPowerState(bool& on) {
  return Redfish_GetPowerState(o_.user.c_str(), o_.password.c_str(), Host(), requestMs_(), &on);
}

int LibraryProbe::GetMac(std::string& mac) {
  return toolkit::ReadBmcMac(o_.user.c_str(), o_.password.c_str(), Host(), nullptr, requestMs_(),
                             mac);
}

int LibraryProbe::GetSensorReadings(std::string& json) {
  char* text = nullptr;
  const int rc =
      Redfish_GetSensorReadings(o_.user.c_str(), o_.password.c_str(), Host(), requestMs_(), &text);
  json = text != nullptr ? text : "";
  Redfish_FreeText(text);
  return rc;
}

RedfishFailure LibraryProbe::LastFailure(int result) { return toolkit::LastFailure(result); }
