// redfishctl doctor: the chain from this host to its BMC as a table of links,
// checked in order. A check gets what the earlier links found as arguments,
// and every failure is explained from what was read, never from a log.
#include "doctor.h"

#include <arpa/inet.h>

#include <rapidjson/document.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <vector>

#include "actions.h"
#include "advice.h"
#include "doctor_probe.h"
#include "platform/mirel/zirn.h"
#include "toolkit/bmc_text.h"
#include "toolkit/failure_text.h"
#include "toolkit/readings.h"
#include "transport/route_document.h"
#include "utils/json_access.h"

namespace {

enum class Verdict { Ok, Warn, Fail, Skip };

struct Outcome {
  Verdict verdict = Verdict::Ok;
  std::string detail;
  std::string check;         // what to check or do next
  RedfishFailure failure{};  // the library's record, when a library call failed
};

Outcome Ok(std::string detail) { return {Verdict::Ok, std::move(detail), "", {}}; }

Outcome Warn(std::string detail, std::string check) {
  return {Verdict::Warn, std::move(detail), std::move(check), {}};
}

Outcome Fail(std::string detail, std::string check) {
  return {Verdict::Fail, std::move(detail), std::move(check), {}};
}

// A failed library call: the cause and what to check come from its record.
Outcome Failed(const RedfishFailure& failure) { return {Verdict::Fail, "", "", failure}; }

// One GET through the library.
struct Read {
  int result = 0;
  RedfishFailure failure{};      // when result is not 0
  rapidjson::Document document;  // the body, parsed, when result is 0
};

Read Get(DoctorProbe& probe, const std::string& path) {
  Read read;
  std::string body;
  read.result = probe.GetResource(path, body);
  if (read.result != 0) {
    read.failure = probe.LastFailure(read.result);
  } else {
    redfish::ParseJson(read.document, body);  // without recursion, however deep
  }
  return read;
}

std::string Count(size_t n, const char* what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
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

// The BMC the route must name: from the first Redfish host interface, or --host.
struct Bmc {
  std::string address;
  int port = 0;  // the host interface's; 0 when unknown
};

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

// The library reads the first Redfish-over-IP record only.
Outcome FirstRecord(const std::vector<const SMBIOS_HostInterface*>& redfish, Bmc& bmc) {
  const SMBIOS_RedfishOverIp& first = redfish[0]->redfish;
  const std::string which = redfish.size() > 1
                                ? "the first of " + Count(redfish.size(), "Redfish host interface")
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
    return Fail(detail,
                "the library needs an IPv4 address in the first Redfish host interface: give "
                "the BMC's host interface a static IPv4 address" +
                    std::string(later.empty() ? "" : ", or remove the first one"));
  }
  bmc.address = AddressText(first);
  bmc.port = first.port;
  const std::string detail = "BMC " + bmc.address + " port " + std::to_string(first.port) + " (" +
                             DiscoveryName(first.discoveryType) + ", " +
                             DeviceName(first.deviceType) + " network interface" +
                             (redfish.size() > 1 ? "; " + which : "") + ")";
  if (later.empty()) return Ok(detail);
  return Warn(detail + "; " + later,
              "the library uses the first, " + bmc.address + "; if that is not the BMC, remove it");
}

Outcome CheckSmbios(DoctorProbe& probe, const std::string& host, Bmc& bmc) {
  if (!host.empty()) {
    bmc.address = host;
    return {Verdict::Skip, "--host names the BMC: " + host, "", {}};
  }
  const HostInterfaces interfaces = probe.ReadHostInterfaces();
  if (interfaces.readError != 0)
    return Fail(std::string("cannot read ") + SMBIOS_SYSFS_TABLE + ": " +
                    std::strerror(interfaces.readError),
                interfaces.readError == EACCES
                    ? "run as root: only root may read the firmware's tables"
                    : "run on the host itself: this system exports no SMBIOS tables");
  std::vector<const SMBIOS_HostInterface*> redfish;
  std::string types;
  for (const SMBIOS_HostInterface& found : interfaces.found) {
    if (found.hasRedfish) redfish.push_back(&found);
    types += (types.empty() ? "" : ", ") + InterfaceName(found.interfaceType);
  }
  if (!redfish.empty()) return FirstRecord(redfish, bmc);
  if (interfaces.status != NUC_OK)
    return Fail(std::string("the SMBIOS table is malformed: ") + interfaces.problem.what +
                    " (offset " + std::to_string(interfaces.problem.offset) + ")",
                "the firmware's tables (dmidecode -t 42); a firmware update may mend them");
  return Fail(interfaces.count == 0
                  ? "no type 42 host interface in the SMBIOS tables"
                  : "no type 42 network interface with a Redfish-over-IP record (interfaces: " +
                        types + ")",
              "enable the BMC's Redfish host interface (in the BMC's or the firmware's settings), "
              "then restart the host; dmidecode -t 42 shows what the firmware publishes");
}

// What the configuration endpoint served: the document, or none (404).
using RouteText = std::optional<std::string>;

Outcome CheckConfigEndpoint(DoctorProbe& probe, RouteText& route) {
  const RouteRead read = probe.ReadRoute();
  if (read.kind == RouteRead::Kind::TimedOut)
    return Fail("localhost:549 did not answer within 2 s",
                "the proxy's configuration endpoint hangs: the proxy's log");
  if (read.kind == RouteRead::Kind::Failed)
    return Fail(read.error,
                "is the proxy running, with its configuration endpoint on localhost:549?");
  if (read.status == 404) {
    route.reset();
    return Ok("localhost:549 answered: it has no route document");
  }
  if (read.status != 200)
    return Fail("localhost:549 answered " + std::to_string(read.status) + " " + read.reason +
                    " to the read of " + redfish::kRouteDocumentPath,
                "the proxy's log: its configuration endpoint fails");
  route = read.text;
  return Ok("localhost:549 served the route document (" + std::to_string(read.text.size()) +
            " bytes)");
}

// A route that does not name this BMC fails, unless --fix-route lets the
// library's first call rewrite it: that call reads the service root, which
// the next links use.
Outcome CheckRouteDocument(DoctorProbe& probe, const Bmc& bmc, const RouteText& route,
                           bool fixRoute, std::optional<Read>& root) {
  std::string detail = "no route document: nothing reaches the BMC until one names " + bmc.address;
  std::string was = "there was none";
  if (route) {
    rapidjson::Document document;
    const rapidjson::Value* socket = redfish::RouteSocketAddress(document, *route);
    if (socket == nullptr)
      return Fail(document.HasParseError()
                      ? "the route document is not JSON (the library reads its first 2048 bytes)"
                      : "the route document names no endpoint address (/proxy_configuration/"
                        "clusters/0/endpoints/0/socket_address/address)",
                  "the library neither uses nor rewrites such a document (its calls answer "
                  "20001): put a correct one back on localhost:549");
    const std::string address = StringMember(*socket, "address");
    if (address == bmc.address) {
      const rapidjson::Value* port = redfish::JsonMember(*socket, "port_value");
      const int routePort = port != nullptr && port->IsInt() ? port->GetInt() : 0;
      detail = "names " + bmc.address + " port " + std::to_string(routePort) + ": this BMC";
      if (bmc.port == 0 || bmc.port == routePort) return Ok(detail);
      return Warn(detail + "; the host interface says port " + std::to_string(bmc.port),
                  "the library sets only the address: the proxy's port for the BMC is the "
                  "document's");
    }
    detail = address.empty()
                 ? "the route names no BMC address"
                 : "the route names " + address + ", not this BMC (" + bmc.address + ")";
    was = address.empty() ? "it named none" : "it named " + address;
  }
  if (!fixRoute)
    return Fail(detail,
                "the library rewrites the route at its first call; to let it now: "
                "redfishctl doctor --fix-route");
  root = Get(probe, "/redfish/v1");
  const RedfishLink link = root->failure.link;
  if (link == REDFISH_LINK_SMBIOS || link == REDFISH_LINK_CONFIG_ENDPOINT ||
      link == REDFISH_LINK_ROUTE_DOCUMENT)
    return Failed(root->failure);
  return Ok("the library rewrote it to name " + bmc.address + " (" + was + ")");
}

// One read of the service root tells three links: any HTTP/2 answer proves
// the proxy, and the failure record says whether the BMC or the credentials
// broke.
Outcome CheckProxy(DoctorProbe& probe, std::optional<Read>& root) {
  if (!root) root = Get(probe, "/redfish/v1");
  const RedfishLink link = root->failure.link;
  if (root->result != 0 && link != REDFISH_LINK_BMC && link != REDFISH_LINK_DOCUMENT &&
      link != REDFISH_LINK_CREDENTIALS)
    return Failed(root->failure);
  return Ok("localhost:80 answered over HTTP/2 cleartext");
}

Outcome CheckBmc(const Read& root) {
  if (root.failure.link == REDFISH_LINK_CREDENTIALS)
    return Ok("the service root answered, asking for credentials");
  if (root.result != 0) return Failed(root.failure);
  const std::string version = StringMember(root.document, "RedfishVersion");
  const std::string vendor = StringMember(root.document, "Vendor");
  return Ok("service root /redfish/v1" + (version.empty() ? "" : ": Redfish " + version) +
            (vendor.empty() ? "" : " (" + vendor + ")"));
}

Outcome CheckCredentials(DoctorProbe& probe, const std::string& user, const Read& root,
                         std::optional<Read>& systems) {
  if (root.failure.link == REDFISH_LINK_CREDENTIALS) return Failed(root.failure);
  systems = Get(probe, "/redfish/v1/Systems");
  if (systems->result != 0) return Failed(systems->failure);
  return Ok("user " + user + " may read /redfish/v1/Systems");
}

// What discovery found that the capabilities need.
struct Inventory {
  std::string firstManager;  // its "@odata.id"
  unsigned int commands =
      0;  // the reset types advertised, as Redfish_GetAllowedCommands gives them
};

Outcome CheckDiscovery(DoctorProbe& probe, const rapidjson::Value& systems, Inventory& inventory) {
  const char* const waitOrReset =
      "a BMC lists what it has inventoried: after a power loss or a BMC reset wait a few "
      "minutes and run this again; if it stays so, reset the BMC";
  if (MemberCount(systems) == 0)
    return Fail("the BMC lists no systems (/redfish/v1/Systems is empty)", waitOrReset);
  const Read managers = Get(probe, "/redfish/v1/Managers");
  if (managers.result != 0) return Failed(managers.failure);
  const Read chassis = Get(probe, "/redfish/v1/Chassis");
  if (chassis.result != 0) return Failed(chassis.failure);
  const Read system = Get(probe, FirstMember(systems));
  if (system.result != 0) return Failed(system.failure);
  if (MemberCount(managers.document) == 0 || MemberCount(chassis.document) == 0)
    return Fail(std::string("the BMC lists no ") +
                    (MemberCount(managers.document) == 0 ? "managers" : "chassis"),
                waitOrReset);
  inventory.firstManager = FirstMember(managers.document);
  const std::string maker = StringMember(system.document, "Manufacturer");
  const int rc = probe.GetAllowedCommands(inventory.commands);
  if (rc == REDFISH_UNKNOWN_VENDOR)
    return {Verdict::Fail, "the maker, '" + maker + "', is none of Dell, HPE, Lenovo", "",
            probe.LastFailure(rc)};
  if (rc != 0) return Failed(probe.LastFailure(rc));
  return Ok(Count(MemberCount(systems), "system") + ", " +
            Count(MemberCount(managers.document), "manager") + ", " +
            std::to_string(MemberCount(chassis.document)) + " chassis; maker " + maker);
}

Outcome CheckPowerState(DoctorProbe& probe) {
  bool on = false;
  const int rc = probe.GetPowerState(on);
  if (rc != 0) return Failed(probe.LastFailure(rc));
  return Ok(on ? "on" : "off");
}

Outcome CheckMac(DoctorProbe& probe, const std::string& firstManager) {
  std::string mac;
  const int rc = probe.GetMac(mac);
  if (rc != 0) return Failed(probe.LastFailure(rc));
  if (mac.empty())
    return Fail("the first manager (" + firstManager + ") lists no Ethernet interfaces",
                "the library proves each power command with the BMC's MAC, so without one they "
                "answer 40002: the BMC's network settings; a BMC reset may bring its interfaces "
                "back");
  return Ok(mac + " (the first manager's last interface)");
}

Outcome CheckSensors(DoctorProbe& probe) {
  std::string json;
  const int rc = probe.GetSensorReadings(json);
  if (rc != 0) return Failed(probe.LastFailure(rc));
  toolkit::Readings readings;
  const bool parsed = toolkit::ParseReadings(json, readings);
  if (!parsed || readings.sensors.empty())
    return Fail(parsed ? "the BMC's chassis hold no readings"
                       : "the readings document is not of its documented shape",
                "the chassis' Sensors, Thermal and Power: redfishctl --json sensors");
  const std::string detail = Count(readings.sensors.size(), "reading") + " from " +
                             std::to_string(readings.chassis.size()) + " chassis";
  if (readings.fromSensors > 0) return Ok(detail);
  return Warn(detail + ", no Sensors collection",
              "Redfish_GetSensorReadings reads these; the 1.0 call Redfish_GetSensorsInfo reads "
              "Sensors only and answers 40001 on this BMC");
}

Outcome CheckResetTypes(unsigned int commands) {
  std::string names;
  for (const Action& a : kActions)
    if (commands & (1u << a.command)) names += (names.empty() ? "" : " ") + std::string(a.name);
  if (names.empty())
    return Fail("the system advertises no reset type",
                "every power command answers 40003: the system's "
                "ResetType@Redfish.AllowableValues or its ResetActionInfo");
  return Ok(names + " (advertised; none sent)");
}

struct Link {
  const char* name;
  std::function<Outcome()> check;
};

struct Row {
  const char* link;
  Outcome outcome;
};

void PrintLine(FILE* out, const Row& row) {
  static const char* const kVerdicts[] = {"ok", "warn", "FAIL", "skip"};
  char head[32];
  std::snprintf(head, sizeof head, "%-16s %s", row.link,
                kVerdicts[static_cast<int>(row.outcome.verdict)]);
  // Details hold the BMC's own texts (its vendor, its MAC, its error messages).
  if (row.outcome.detail.empty()) {
    std::fprintf(out, "%s\n", head);
  } else {
    std::fprintf(out, "%-22s %s\n", head, toolkit::Printable(row.outcome.detail).c_str());
  }
  if (!row.outcome.check.empty())
    std::fprintf(out, "%-22s check: %s\n", "", toolkit::Printable(row.outcome.check).c_str());
  std::fflush(out);
}

void PrintJson(FILE* out, const std::vector<Row>& rows, const char* broken, double seconds) {
  static const char* const kVerdicts[] = {"ok", "warn", "fail", "skip"};
  std::string text = "{\"ok\":" + std::string(broken == nullptr ? "true" : "false") +
                     ",\"seconds\":" + std::to_string(seconds) + ",\"failed\":\"" +
                     (broken == nullptr ? "" : broken) + "\",\"links\":[";
  for (const Row& row : rows) {
    const Outcome& o = row.outcome;
    text += std::string(&row == &rows.front() ? "" : ",") + "{\"link\":\"" + row.link +
            "\",\"status\":\"" + kVerdicts[static_cast<int>(o.verdict)] + "\",\"detail\":\"" +
            toolkit::JsonEscape(o.detail) + "\"";
    if (!o.check.empty()) text += ",\"check\":\"" + toolkit::JsonEscape(o.check) + "\"";
    if (o.failure.result != 0) text += ",\"failure\":{" + toolkit::FailureJson(o.failure) + "}";
    text += "}";
  }
  std::fprintf(out, "%s]}\n", text.c_str());
}

}  // namespace

int RunDoctor(const DoctorOptions& o, DoctorProbe& probe,
              const std::function<void(const char*)>& starting, FILE* out) {
  const auto start = std::chrono::steady_clock::now();
  Bmc bmc;
  RouteText route;
  std::optional<Read> root;
  std::optional<Read> systems;
  Inventory inventory;
  const Link links[] = {
      {"smbios", [&] { return CheckSmbios(probe, o.host, bmc); }},
      {"config-endpoint", [&] { return CheckConfigEndpoint(probe, route); }},
      {"route-document", [&] { return CheckRouteDocument(probe, bmc, route, o.fixRoute, root); }},
      {"proxy", [&] { return CheckProxy(probe, root); }},
      {"bmc", [&] { return CheckBmc(*root); }},
      {"credentials", [&] { return CheckCredentials(probe, o.user, *root, systems); }},
      {"discovery", [&] { return CheckDiscovery(probe, systems->document, inventory); }},
      {"power-state", [&] { return CheckPowerState(probe); }},
      {"mac", [&] { return CheckMac(probe, inventory.firstManager); }},
      {"sensors", [&] { return CheckSensors(probe); }},
      {"reset-types", [&] { return CheckResetTypes(inventory.commands); }},
  };
  std::vector<Row> rows;
  const char* broken = nullptr;
  size_t warnings = 0;
  for (const Link& link : links) {
    Row row{link.name, {Verdict::Skip, "", "", {}}};
    // Past a broken link nothing is checked: each link needs the ones before.
    if (broken == nullptr) {
      starting(link.name);
      row.outcome = link.check();
      Outcome& outcome = row.outcome;
      if (outcome.verdict == Verdict::Fail && outcome.failure.result != 0) {
        if (outcome.detail.empty()) outcome.detail = toolkit::FailureCause(outcome.failure);
        if (outcome.check.empty())
          outcome.check = FailureCheck(outcome.failure, bmc.address, link.name);
      }
      if (outcome.verdict == Verdict::Fail) broken = link.name;
      warnings += outcome.verdict == Verdict::Warn;
    }
    if (!o.json) PrintLine(out, row);
    rows.push_back(std::move(row));
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (o.json) {
    PrintJson(out, rows, broken, seconds);
  } else if (broken != nullptr) {
    std::fprintf(out, "doctor: broken: %s (%.2f s)\n", broken, seconds);
  } else {
    std::fprintf(out, "doctor: every link works%s (%.2f s)\n",
                 warnings == 0 ? "" : (", with " + Count(warnings, "warning")).c_str(), seconds);
  }
  std::fflush(out);
  return broken == nullptr ? 0 : 1;
}
