// redfishctl doctor. The SMBIOS record and the route document are read here,
// before any library call, with the library's own sources (the SMBIOS reader
// and the route document's exchanges, compiled into redfishctl): the
// library's first call rewrites a route that names another BMC, and its
// record of the host interface holds only the first one's address. Every
// later link is checked through the library's exported calls, and a failure
// is explained from its failure record.
#include "doctor.h"

#include <arpa/inet.h>

#include <rapidjson/document.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "actions.h"
#include "bmcredfish.h"
#include "failure_text.h"
#include "platform/mirel/smbios.h"
#include "platform/mirel/zirn.h"
#include "sensors_table.h"
#include "transport/route_document.h"
#include "utils/json_access.h"

namespace {

enum class Verdict { Ok, Warn, Fail, Skip };

const char* const kLinks[] = {"smbios", "config-endpoint", "route-document", "proxy",
                              "bmc",    "credentials",     "discovery",      "power-state",
                              "mac",    "sensors",         "reset-types"};

struct Line {
  std::string link;
  Verdict verdict = Verdict::Ok;
  std::string detail;
  std::string check;
  RedfishFailure failure{};  // the library's record, when a library call failed
};

std::string Count(size_t n, const char* what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

std::string Hex16(unsigned value) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%04x", value);
  return text;
}

bool HasIpv4(const SMBIOS_RedfishOverIp& r) {
  return r.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV4 &&
         (r.address[0] | r.address[1] | r.address[2] | r.address[3]) != 0;
}

std::string AddressText(const SMBIOS_RedfishOverIp& r) {
  char text[INET6_ADDRSTRLEN] = "";
  const bool v6 = r.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV6;
  inet_ntop(v6 ? AF_INET6 : AF_INET, r.address, text, sizeof text);
  return text;
}

const char* DiscoveryName(uint8_t type) {
  static const char* const kNames[] = {"unknown", "static", "DHCP", "auto-configured",
                                       "host-selected"};
  return type < 5 ? kNames[type] : "unknown";
}

const char* DeviceName(uint8_t type) {
  if (type == 0x02 || type == 0x04) return "USB";
  if (type == 0x03 || type == 0x05) return "PCI";
  return "OEM";
}

std::string InterfaceName(uint8_t type) {
  if (type == SMBIOS_INTERFACE_KCS) return "KCS";
  if (type == SMBIOS_INTERFACE_NETWORK) return "network";
  char text[8];
  std::snprintf(text, sizeof text, "0x%02x", type);
  return text;
}

size_t MemberCount(const rapidjson::Value& collection) {
  const rapidjson::Value* members = redfish::JsonMember(collection, "Members");
  return members != nullptr && members->IsArray() ? members->Size() : 0;
}

std::string StringMember(const rapidjson::Value& object, const char* name) {
  std::string text;
  redfish::JsonString(object, name, text);
  return text;
}

// The first member's "@odata.id", or "".
std::string FirstMember(const rapidjson::Value& collection) {
  return MemberCount(collection) == 0 ? "" : StringMember(collection["Members"][0], "@odata.id");
}

class Doctor {
 public:
  Doctor(const DoctorOptions& o, const std::function<unsigned int()>& requestMs,
         const std::function<void(const char*)>& starting)
      : o_(o), requestMs_(requestMs), starting_(starting) {}

  int Run() {
    const auto start = std::chrono::steady_clock::now();
    if (Smbios() && Route() && ProxyAndBmc() && Credentials() && Discovery()) Capabilities();
    for (const char* link : kLinks) {
      const bool done =
          std::any_of(lines_.begin(), lines_.end(), [&](const Line& l) { return l.link == link; });
      if (!done) Emit({link, Verdict::Skip, "", "", {}});
    }
    return Finish(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }

 private:
  void Emit(Line line) {
    if (!o_.json) {
      static const char* const kVerdicts[] = {"ok", "warn", "FAIL", "skip"};
      char head[32];
      std::snprintf(head, sizeof head, "%-16s %s", line.link.c_str(),
                    kVerdicts[static_cast<int>(line.verdict)]);
      if (line.detail.empty()) {
        std::printf("%s\n", head);
      } else {
        std::printf("%-22s %s\n", head, line.detail.c_str());
      }
      if (!line.check.empty()) std::printf("%-22s check: %s\n", "", line.check.c_str());
      std::fflush(stdout);
    }
    lines_.push_back(std::move(line));
  }

  bool Ok(const char* link, const std::string& detail) {
    Emit({link, Verdict::Ok, detail, "", {}});
    return true;
  }

  bool Fail(const char* link, const std::string& detail, const std::string& check) {
    Emit({link, Verdict::Fail, detail, check, {}});
    return false;
  }

  bool Fail(const std::string& link, const RedfishFailure& f) {
    Emit({link, Verdict::Fail, FailureCause(f), FailureCheck(f, bmc_, link), f});
    return false;
  }

  // One library call; on failure, failure_ holds its record.
  template <typename Call>
  int Library(const char* link, Call call) {
    starting_(link);
    const int rc = call(requestMs_());
    failure_ = rc != 0 ? LastFailure(rc) : RedfishFailure{};
    return rc;
  }

  int Resource(const char* link, const std::string& path, rapidjson::Document& doc) {
    char* json = nullptr;
    const int rc = Library(link, [&](unsigned int ms) {
      return Redfish_GetResource(o_.user.c_str(), o_.password.c_str(), Host(), path.c_str(), ms,
                                 &json);
    });
    // The BMC's body as it came: parsed without recursion, however deep.
    if (rc == 0 && json != nullptr) redfish::ParseJson(doc, json);
    Redfish_FreeText(json);
    return rc;
  }

  const char* Host() const { return o_.host.empty() ? nullptr : o_.host.c_str(); }

  bool Smbios() {
    starting_("smbios");
    if (!o_.host.empty()) {
      bmc_ = o_.host;
      Emit({"smbios", Verdict::Skip, "--host names the BMC: " + o_.host, "", {}});
      return true;
    }
    std::vector<uint8_t> table;
    if (!SMBIOS_ReadTable(SMBIOS_SYSFS_ENTRY_POINT, SMBIOS_SYSFS_TABLE, table)) {
      const int error = errno;
      return Fail("smbios",
                  std::string("cannot read ") + SMBIOS_SYSFS_TABLE + ": " + std::strerror(error),
                  error == EACCES ? "run as root: only root may read the firmware's tables"
                                  : "run on the host itself: this system exports no SMBIOS tables");
    }
    constexpr size_t kMax = 16;
    SMBIOS_HostInterface found[kMax] = {};
    size_t count = 0;
    SMBIOS_Problem problem{"", 0};
    const int status =
        SMBIOS_ListHostInterfaces(table.data(), table.size(), found, kMax, &count, &problem);
    std::vector<const SMBIOS_HostInterface*> redfish;
    std::string types;
    for (size_t i = 0; i < std::min(count, kMax); ++i) {
      if (found[i].hasRedfish) redfish.push_back(&found[i]);
      types += (types.empty() ? "" : ", ") + InterfaceName(found[i].interfaceType);
    }
    const std::string publish =
        "enable the BMC's Redfish host interface (in the BMC's or the firmware's settings), "
        "then restart the host; dmidecode -t 42 shows what the firmware publishes";
    if (redfish.empty()) {
      if (status != NUC_OK)
        return Fail("smbios",
                    std::string("the SMBIOS table is malformed: ") + problem.what + " (offset " +
                        std::to_string(problem.offset) + ")",
                    "the firmware's tables (dmidecode -t 42); a firmware update may mend them");
      return Fail("smbios",
                  count == 0 ? "no type 42 host interface in the SMBIOS tables"
                             : "no type 42 network interface with a Redfish-over-IP record "
                               "(interfaces: " +
                                   types + ")",
                  publish);
    }
    return ReadFirstRecord(redfish);
  }

  // The library reads the first Redfish-over-IP record only.
  bool ReadFirstRecord(const std::vector<const SMBIOS_HostInterface*>& redfish) {
    const SMBIOS_RedfishOverIp& first = redfish[0]->redfish;
    const std::string which =
        redfish.size() > 1 ? "the first of " + Count(redfish.size(), "Redfish host interface")
                           : "the Redfish host interface";
    std::string later;
    for (size_t i = 1; i < redfish.size() && later.empty(); ++i)
      if (HasIpv4(redfish[i]->redfish) && AddressText(redfish[i]->redfish) != AddressText(first))
        later = "a later one (handle " + Hex16(redfish[i]->handle) + ") names " +
                AddressText(redfish[i]->redfish);
    if (!HasIpv4(first)) {
      std::string detail = which + " (handle " + Hex16(redfish[0]->handle) + ") names ";
      detail +=
          first.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV6
              ? "only an IPv6 address, " + AddressText(first)
          : first.discoveryType == 2 || first.discoveryType == 3
              ? "no address: the BMC's address is left to DHCP"
              : std::string("no address (discovery: ") + DiscoveryName(first.discoveryType) + ")";
      if (!later.empty()) detail += "; " + later + ", but the library reads only the first";
      return Fail("smbios", detail,
                  "the library needs an IPv4 address in the first Redfish host interface: give "
                  "the BMC's host interface a static IPv4 address" +
                      std::string(later.empty() ? "" : ", or remove the first one"));
    }
    bmc_ = AddressText(first);
    smbiosPort_ = first.port;
    const std::string detail = "BMC " + bmc_ + " port " + std::to_string(first.port) + " (" +
                               DiscoveryName(first.discoveryType) + ", " +
                               DeviceName(first.deviceType) + " network interface" +
                               (redfish.size() > 1 ? "; " + which : "") + ")";
    if (later.empty()) return Ok("smbios", detail);
    Emit({"smbios",
          Verdict::Warn,
          detail + "; " + later,
          "the library uses the first, " + bmc_ + "; if that is not the BMC, remove it",
          {}});
    return true;
  }

  bool Route() {
    starting_("config-endpoint");
    std::string text;
    Tessel::Http::ClientResponse::Status status;
    try {
      status = redfish::ReadRouteDocument(text);
    } catch (const Tessel::TimeoutException&) {
      return Fail("config-endpoint", "localhost:549 did not answer within 2 s",
                  "the proxy's configuration endpoint hangs: the proxy's log");
    } catch (const Tessel::Exception& e) {
      return Fail("config-endpoint", e.what(),
                  "is the proxy running, with its configuration endpoint on localhost:549?");
    }
    if (status.code == 404) {
      Ok("config-endpoint", "localhost:549 answered: it has no route document");
      return RouteNeedsFix("no route document: nothing reaches the BMC until one names " + bmc_,
                           "there was none");
    }
    if (status.code != 200)
      return Fail("config-endpoint",
                  "localhost:549 answered " + std::to_string(status.code) + " " + status.reason +
                      " to the read of " + redfish::kRouteDocumentPath,
                  "the proxy's log: its configuration endpoint fails");
    Ok("config-endpoint",
       "localhost:549 served the route document (" + std::to_string(text.size()) + " bytes)");
    starting_("route-document");
    rapidjson::Document document;
    const rapidjson::Value* socket = redfish::RouteSocketAddress(document, text);
    if (socket == nullptr) {
      return Fail("route-document",
                  document.HasParseError()
                      ? "the route document is not JSON (the library reads its first 2048 bytes)"
                      : "the route document names no endpoint address (/proxy_configuration/"
                        "clusters/0/endpoints/0/socket_address/address)",
                  "the library neither uses nor rewrites such a document (its calls answer "
                  "20001): put a correct one back on localhost:549");
    }
    const std::string address = StringMember(*socket, "address");
    const rapidjson::Value* port = redfish::JsonMember(*socket, "port_value");
    const int routePort = port != nullptr && port->IsInt() ? port->GetInt() : 0;
    if (address != bmc_)
      return RouteNeedsFix(address.empty()
                               ? "the route names no BMC address"
                               : "the route names " + address + ", not this BMC (" + bmc_ + ")",
                           address.empty() ? "it named none" : "it named " + address);
    const std::string detail =
        "names " + bmc_ + " port " + std::to_string(routePort) + ": this BMC";
    if (smbiosPort_ == 0 || smbiosPort_ == routePort) return Ok("route-document", detail);
    Emit({"route-document",
          Verdict::Warn,
          detail + "; the host interface says port " + std::to_string(smbiosPort_),
          "the library sets only the address: the proxy's port for the BMC is the document's",
          {}});
    return true;
  }

  bool RouteNeedsFix(const std::string& detail, const std::string& was) {
    if (!o_.fixRoute)
      return Fail("route-document", detail,
                  "the library rewrites the route at its first call; to let it now: "
                  "redfishctl doctor --fix-route");
    routeWas_ = was;
    return true;
  }

  // One read of the service root tells both: any HTTP/2 answer proves the
  // proxy, and the failure record says which link broke.
  bool ProxyAndBmc() {
    rapidjson::Document root;
    const int rc = Resource(routeWas_.empty() ? "proxy" : "route-document", "/redfish/v1", root);
    const RedfishLink link = rc == 0 ? REDFISH_LINK_NONE : failure_.link;
    if (!routeWas_.empty()) {
      if (link == REDFISH_LINK_SMBIOS || link == REDFISH_LINK_CONFIG_ENDPOINT ||
          link == REDFISH_LINK_ROUTE_DOCUMENT)
        return Fail("route-document", failure_);
      Ok("route-document", "the library rewrote it to name " + bmc_ + " (" + routeWas_ + ")");
    }
    switch (link) {
      case REDFISH_LINK_NONE:
        break;
      case REDFISH_LINK_SMBIOS:
      case REDFISH_LINK_CONFIG_ENDPOINT:
      case REDFISH_LINK_ROUTE_DOCUMENT:
        return Fail(LinkLabel(link), failure_);
      case REDFISH_LINK_BMC:
      case REDFISH_LINK_DOCUMENT:
      case REDFISH_LINK_CREDENTIALS:
        Ok("proxy", "localhost:80 answered over HTTP/2 cleartext");
        if (link != REDFISH_LINK_CREDENTIALS) return Fail("bmc", failure_);
        Ok("bmc", "the service root answered, asking for credentials");
        return Fail("credentials", failure_);
      default:
        return Fail("proxy", failure_);
    }
    Ok("proxy", "localhost:80 answered over HTTP/2 cleartext");
    const std::string version = StringMember(root, "RedfishVersion");
    const std::string vendor = StringMember(root, "Vendor");
    return Ok("bmc", "service root /redfish/v1" + (version.empty() ? "" : ": Redfish " + version) +
                         (vendor.empty() ? "" : " (" + vendor + ")"));
  }

  bool Credentials() {
    if (Resource("credentials", "/redfish/v1/Systems", systems_) != 0)
      return Fail("credentials", failure_);
    return Ok("credentials", "user " + o_.user + " may read /redfish/v1/Systems");
  }

  bool Discovery() {
    const std::string waitOrReset =
        "a BMC lists what it has inventoried: after a power loss or a BMC reset wait a few "
        "minutes and run this again; if it stays so, reset the BMC";
    rapidjson::Document managers, chassis, system;
    if (MemberCount(systems_) == 0)
      return Fail("discovery", "the BMC lists no systems (/redfish/v1/Systems is empty)",
                  waitOrReset);
    if (Resource("discovery", "/redfish/v1/Managers", managers) != 0 ||
        Resource("discovery", "/redfish/v1/Chassis", chassis) != 0 ||
        Resource("discovery", FirstMember(systems_), system) != 0)
      return Fail("discovery", failure_);
    if (MemberCount(managers) == 0 || MemberCount(chassis) == 0)
      return Fail(
          "discovery",
          std::string("the BMC lists no ") + (MemberCount(managers) == 0 ? "managers" : "chassis"),
          waitOrReset);
    firstManager_ = FirstMember(managers);
    const std::string maker = StringMember(system, "Manufacturer");
    const int rc = Library("discovery", [&](unsigned int ms) {
      return Redfish_GetAllowedCommands(o_.user.c_str(), o_.password.c_str(), Host(), ms,
                                        &commands_);
    });
    if (rc == REDFISH_UNKNOWN_VENDOR)
      return Fail("discovery", "the maker, '" + maker + "', is none of Dell, HPE, Lenovo",
                  FailureCheck(failure_, bmc_, "discovery"));
    if (rc != 0) return Fail("discovery", failure_);
    return Ok("discovery", Count(MemberCount(systems_), "system") + ", " +
                               Count(MemberCount(managers), "manager") + ", " +
                               std::to_string(MemberCount(chassis)) + " chassis; maker " + maker);
  }

  // Each capability is checked: none depends on another.
  void Capabilities() {
    bool on = false;
    if (Library("power-state", [&](unsigned int ms) {
          return Redfish_GetPowerState(o_.user.c_str(), o_.password.c_str(), Host(), ms, &on);
        }) != 0)
      Fail("power-state", failure_);
    else
      Ok("power-state", on ? "on" : "off");
    Mac();
    Sensors();
    std::string names;
    for (const Action& a : kActions)
      if (commands_ & (1u << a.command)) names += (names.empty() ? "" : " ") + std::string(a.name);
    if (names.empty())
      Fail("reset-types", "the system advertises no reset type",
           "every power command answers 40003: the system's ResetType@Redfish.AllowableValues "
           "or its ResetActionInfo");
    else
      Ok("reset-types", names + " (advertised; none sent)");
  }

  void Mac() {
    char mac[64] = "";
    unsigned int length = sizeof mac;
    if (Library("mac", [&](unsigned int ms) {
          return Redfish_GetMacAddress(o_.user.c_str(), o_.password.c_str(), Host(), nullptr, ms,
                                       mac, &length);
        }) != 0) {
      Fail("mac", failure_);
    } else if (mac[0] == '\0') {
      Fail("mac", "the first manager (" + firstManager_ + ") lists no Ethernet interfaces",
           "the library proves each power command with the BMC's MAC, so without one they answer "
           "40002: the BMC's network settings; a BMC reset may bring its interfaces back");
    } else {
      Ok("mac", std::string(mac) + " (the first manager's last interface)");
    }
  }

  void Sensors() {
    char* json = nullptr;
    if (Library("sensors", [&](unsigned int ms) {
          return Redfish_GetSensorReadings(o_.user.c_str(), o_.password.c_str(), Host(), ms, &json);
        }) != 0) {
      Fail("sensors", failure_);
      return;
    }
    Readings readings;
    const bool parsed = ParseReadings(json, readings);
    Redfish_FreeText(json);
    const std::string detail = Count(readings.rows.size(), "reading") + " from " +
                               std::to_string(readings.chassis) + " chassis";
    if (!parsed || readings.rows.empty()) {
      Fail("sensors",
           parsed ? "the BMC's chassis hold no readings"
                  : "the readings document is not of its documented shape",
           "the chassis' Sensors, Thermal and Power: redfishctl --json sensors");
    } else if (readings.fromSensors == 0) {
      Emit({"sensors",
            Verdict::Warn,
            detail + ", from Thermal and Power: no Sensors collection",
            "Redfish_GetSensorReadings reads these; the 1.0 call Redfish_GetSensorsInfo reads "
            "Sensors only and answers 40001 on this BMC",
            {}});
    } else {
      Ok("sensors", detail);
    }
  }

  int Finish(double seconds) {
    std::string failed;
    size_t warnings = 0;
    for (const Line& l : lines_) {
      if (l.verdict == Verdict::Fail) failed += (failed.empty() ? "" : ", ") + l.link;
      warnings += l.verdict == Verdict::Warn;
    }
    char took[32];
    std::snprintf(took, sizeof took, "%.2f s", seconds);
    if (o_.json) {
      PrintJson(failed, seconds);
    } else if (!failed.empty()) {
      std::printf("doctor: broken: %s (%s)\n", failed.c_str(), took);
    } else {
      std::printf("doctor: every link works%s (%s)\n",
                  warnings == 0 ? "" : (", with " + Count(warnings, "warning")).c_str(), took);
    }
    return failed.empty() ? 0 : 1;
  }

  void PrintJson(const std::string& failed, double seconds) const {
    static const char* const kVerdicts[] = {"ok", "warn", "fail", "skip"};
    std::string out = "{\"ok\":" + std::string(failed.empty() ? "true" : "false") +
                      ",\"seconds\":" + std::to_string(seconds) + ",\"failed\":\"" +
                      JsonEscape(failed) + "\",\"links\":[";
    for (const Line& l : lines_) {
      out += std::string(&l == &lines_.front() ? "" : ",") + "{\"link\":\"" + l.link +
             "\",\"status\":\"" + kVerdicts[static_cast<int>(l.verdict)] + "\",\"detail\":\"" +
             JsonEscape(l.detail) + "\"";
      if (!l.check.empty()) out += ",\"check\":\"" + JsonEscape(l.check) + "\"";
      if (l.failure.result != 0) out += ",\"failure\":{" + FailureJson(l.failure) + "}";
      out += "}";
    }
    std::printf("%s]}\n", out.c_str());
  }

  const DoctorOptions& o_;
  const std::function<unsigned int()>& requestMs_;
  const std::function<void(const char*)>& starting_;
  std::vector<Line> lines_;
  RedfishFailure failure_{};
  std::string bmc_;       // the address the route must name
  int smbiosPort_ = 0;    // the port the host interface announces
  std::string routeWas_;  // what the route named, when --fix-route lets the library rewrite it
  rapidjson::Document systems_;
  std::string firstManager_;
  unsigned int commands_ = 0;
};

}  // namespace

int RunDoctor(const DoctorOptions& options, const std::function<unsigned int()>& requestMs,
              const std::function<void(const char*)>& starting) {
  return Doctor(options, requestMs, starting).Run();
}
