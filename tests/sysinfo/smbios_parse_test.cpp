// The SMBIOS reader on tables from tools/smbios-gen: each variant decodes (or
// fails) as it should, cut tables never read past their end, and the decoded
// fields match what dmidecode makes of the same bytes.
#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <memory>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/mirel/smbios.h"
#include "platform/mirel/zirn.h"
#include "sysinfo_support.h"

namespace {

using sysinfo_test::Generate;
using sysinfo_test::GeneratedTable;

// Parses an exact-size heap copy of the first n bytes, so a sanitizer sees any overread.
int Parse(const std::vector<uint8_t>& bytes, size_t n, SMBIOS_RedfishOverIp* record,
          SMBIOS_Problem* problem = nullptr) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[n]);
  std::memcpy(copy.get(), bytes.data(), n);
  return SMBIOS_FindRedfishOverIp(n ? copy.get() : nullptr, n, record, problem);
}

std::string Address(uint8_t format, const uint8_t* bytes) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(format == SMBIOS_ADDRESS_FORMAT_IPV6 ? AF_INET6 : AF_INET, bytes, text, sizeof text);
  return text;
}

struct Variant {
  const char* name;
  const char* args;
  int status;
  // What an NUC_OK record holds: "discovery address port vlan hostname" (hostname "-": none).
  const char* expected = "1 127.0.42.1 443 0 bmc.local";
};
void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

const std::vector<Variant> kVariants = {
    {"ipv4_default", "", NUC_OK},
    {"ipv4_pci_dhcp_vlan",
     "--ipv4 127.1.2.3 --port 8443 --vlan 4094 --discovery dhcp --device pci-v2 --hostname mc",
     NUC_OK, "2 127.1.2.3 8443 4094 mc"},
    {"ipv6_only", "--ipv6-only fd00:42::1 --discovery auto", NUC_OK,
     "3 fd00:42::1 443 0 bmc.local"},
    {"kcs_before_network", "--kcs-first --device usb-v2", NUC_OK},
    {"empty_hostname", "--hostname '' --discovery host", NUC_OK, "4 127.0.42.1 443 0 -"},
    {"extra_record_first", "--corrupt extra-record", NUC_OK},
    {"hostname_past_record", "--corrupt hostname-past-record", NUC_OK, "1 127.0.42.1 443 0 -"},
    {"no_redfish", "--no-redfish", NUC_ERR_NO_ENTRY},
    {"struct_past_end", "--corrupt struct-past-end", NUC_ERR_CORRUPT_TABLE},
    {"no_terminator", "--corrupt no-terminator --device usb-v2", NUC_ERR_CORRUPT_TABLE},
    {"short_header", "--corrupt short-header", NUC_ERR_CORRUPT_TABLE},
    {"iface_data_past_struct", "--corrupt iface-data-past-struct", NUC_ERR_CORRUPT_TABLE},
    {"record_past_struct", "--corrupt record-past-struct", NUC_ERR_CORRUPT_TABLE},
    {"count_past_struct", "--corrupt count-past-struct", NUC_ERR_CORRUPT_TABLE},
    {"short_record", "--corrupt short-record", NUC_ERR_CORRUPT_TABLE},
};

std::map<std::string, std::string> Render(const SMBIOS_RedfishOverIp& r);
void ExpectAgreement(const std::vector<uint8_t>& table, size_t n, const std::vector<uint8_t>& dump);
bool HaveDmidecode();

class SmbiosVariant : public ::testing::TestWithParam<Variant> {};

// Each variant decodes to what the generator was asked for, and to what
// dmidecode reads from the same bytes.
TEST_P(SmbiosVariant, DecodesAsGeneratedAndAsDmidecodeDoes) {
  const Variant& v = GetParam();
  const GeneratedTable g = Generate(v.args);
  if (HaveDmidecode()) ExpectAgreement(g.table, g.table.size(), g.dump);
  SMBIOS_RedfishOverIp r{};
  SMBIOS_Problem problem{nullptr, 0};
  ASSERT_EQ(Parse(g.table, g.table.size(), &r, &problem), v.status)
      << (problem.what ? problem.what : "") << " at " << problem.offset;
  if (v.status != NUC_OK) {
    ASSERT_NE(problem.what, nullptr);
    EXPECT_LT(problem.offset, g.table.size());
    return;
  }
  ASSERT_FALSE(g.hostInterfaces.empty());
  EXPECT_EQ(r.structureOffset, g.hostInterfaces.back().first);  // the network one is last
  std::ostringstream got;
  got << int{r.discoveryType} << ' ' << Address(r.addressFormat, r.address) << ' ' << r.port << ' '
      << r.vlan << ' ' << (r.hostname[0] ? r.hostname : "-");
  EXPECT_EQ(got.str(), v.expected);
  EXPECT_EQ(r.hostnameFits, std::string(v.name) != "hostname_past_record");
}

INSTANTIATE_TEST_SUITE_P(Generated, SmbiosVariant, ::testing::ValuesIn(kVariants),
                         [](const auto& info) { return std::string(info.param.name); });

// Every prefix of a good table: nothing is decoded until the host interface
// structure is complete, and then it decodes exactly as the whole table does;
// dmidecode, reading the same cut, comes to the same verdict.
TEST(SmbiosParse, TruncatedTablesFailUntilTheRecordIsWhole) {
  const GeneratedTable g = Generate("--kcs-first --device usb-v2 --ipv4 127.0.42.7 --port 8443");
  ASSERT_EQ(g.hostInterfaces.size(), 2u);
  const auto [start, end] = g.hostInterfaces.back();
  const size_t header = g.dump.size() - g.table.size();
  SMBIOS_RedfishOverIp whole{};
  ASSERT_EQ(Parse(g.table, g.table.size(), &whole), NUC_OK);
  for (size_t n = 0; n <= g.table.size(); ++n) {
    SCOPED_TRACE("length " + std::to_string(n));
    if (HaveDmidecode()) {
      ExpectAgreement(g.table, n, {g.dump.begin(), g.dump.begin() + static_cast<long>(header + n)});
    }
    SMBIOS_RedfishOverIp r{};
    const int status = Parse(g.table, n, &r);
    if (n >= end) {
      ASSERT_EQ(status, NUC_OK);
      EXPECT_EQ(Render(r), Render(whole));
    } else if (n == 0) {
      EXPECT_EQ(status, NUC_ERR_NO_TABLE);
    } else if (n == start) {
      EXPECT_EQ(status, NUC_ERR_NO_ENTRY);  // cut cleanly between structures
    } else if (n > start + 3) {
      EXPECT_EQ(status, NUC_ERR_CORRUPT_TABLE);  // cut inside the host interface
    } else {
      EXPECT_NE(status, NUC_OK);
    }
  }
}

// The list sees every type 42 structure, where the search stops at the first
// Redfish record; a fault after some structures keeps the count of those.
TEST(SmbiosParse, ListsEveryHostInterfaceInTableOrder) {
  const GeneratedTable g = Generate("--kcs-first --first-record fd00:42::9 --ipv4 127.0.42.7");
  SMBIOS_HostInterface found[4] = {};
  size_t count = 0;
  ASSERT_EQ(SMBIOS_ListHostInterfaces(g.table.data(), g.table.size(), found, 2, &count, nullptr),
            NUC_OK);
  ASSERT_EQ(count, 3u) << "counted past the two that fit";
  EXPECT_EQ(found[0].interfaceType, SMBIOS_INTERFACE_KCS);
  EXPECT_FALSE(found[0].hasRedfish);
  ASSERT_TRUE(found[1].hasRedfish);
  EXPECT_EQ(Address(found[1].redfish.addressFormat, found[1].redfish.address), "fd00:42::9");
  SMBIOS_RedfishOverIp first{};
  ASSERT_EQ(Parse(g.table, g.table.size(), &first), NUC_OK);
  EXPECT_EQ(first.handle, found[1].handle) << "the search takes the first Redfish record";

  const GeneratedTable bad = Generate("--kcs-first --corrupt count-past-struct");
  EXPECT_EQ(
      SMBIOS_ListHostInterfaces(bad.table.data(), bad.table.size(), found, 4, &count, nullptr),
      NUC_ERR_CORRUPT_TABLE);
  EXPECT_EQ(count, 1u);
}

TEST(SmbiosEntryPoint, AnnouncesTheTableLengthOnlyWhenWellFormed) {
  sysinfo_test::ScratchDir dir;
  for (const std::string format : {"3", "2"}) {
    for (const std::string corrupt : {"", "--corrupt entry-point-checksum"}) {
      SCOPED_TRACE("entry point " + format + " " + corrupt);
      int status = -1;
      sysinfo_test::Shell(std::string(sysinfo_test::kGenerator) + " --out-sysfs " + dir.path +
                              " --entry-point " + format + " " + corrupt,
                          &status);
      ASSERT_EQ(status, 0);
      const auto ep = sysinfo_test::ReadFile(dir.Path("smbios_entry_point"));
      const size_t table = sysinfo_test::ReadFile(dir.Path("DMI")).size();
      EXPECT_EQ(SMBIOS_TableLengthFromEntryPoint(ep.data(), ep.size()),
                corrupt.empty() ? table : 0);
      for (size_t n = 0; n < ep.size(); ++n) {  // a cut entry point is refused, not overread
        const std::vector<uint8_t> cut(ep.begin(), ep.begin() + static_cast<long>(n));
        EXPECT_EQ(SMBIOS_TableLengthFromEntryPoint(cut.data(), n), 0u) << n;
      }
    }
  }
}

// --- agreement with dmidecode ----------------------------------------------

// The lines dmidecode prints for the first Redfish record of a network host
// interface, by label; empty when it printed none or found the structure broken.
std::map<std::string, std::string> DmidecodeRecord(const std::vector<uint8_t>& dump) {
  sysinfo_test::ScratchDir dir;
  sysinfo_test::WriteFile(dir.Path("dump"), dump);
  std::istringstream lines(
      sysinfo_test::Shell(DMIDECODE " --from-dump " + dir.Path("dump") + " -t 42 2>&1"));
  std::map<std::string, std::string> fields;
  std::string line;
  bool network = false, redfish = false;
  while (std::getline(lines, line)) {
    if (line.find("exceeds total structure length") != std::string::npos) return {};
    if (line.rfind("Handle ", 0) == 0 || line.rfind("\tProtocol ID: ", 0) == 0) {
      if (redfish) break;
      redfish = network && line.find("(Redfish over IP)") != std::string::npos;
      if (line[0] == 'H') network = false;
    } else if (line == "\tHost Interface Type: Network") {
      network = true;
    } else if (redfish && line.rfind("\t\t", 0) == 0 && line.find(": ") != std::string::npos) {
      fields[line.substr(2, line.find(": ") - 2)] = line.substr(line.find(": ") + 2);
    }
  }
  if (fields.count("Redfish Service IP Discovery Type") == 0) fields.clear();
  return fields;
}

// Our record rendered as dmidecode prints it.
std::map<std::string, std::string> Render(const SMBIOS_RedfishOverIp& r) {
  static const char* const kNames[] = {"Unknown", "Static", "DHCP", "AutoConf", "Host Selected"};
  auto kind = [](uint8_t t) { return std::string(t < 5 ? kNames[t] : "?"); };
  const std::string family = r.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV6 ? "IPv6" : "IPv4";
  const uint8_t* u = r.serviceUuid;
  char uuid[40];
  std::snprintf(uuid, sizeof uuid,
                "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[3], u[2],
                u[1], u[0], u[5], u[4], u[7], u[6], u[8], u[9], u[10], u[11], u[12], u[13], u[14],
                u[15]);
  std::map<std::string, std::string> f = {
      {"Service UUID", uuid},
      {"Host IP Assignment Type", kind(r.hostIpAssignmentType)},
      {"Host IP Address Format", family},
      {"Redfish Service IP Discovery Type", kind(r.discoveryType)},
      {"Redfish Service IP Address Format", family},
      // dmidecode's marker for a hostname that does not fit its record.
      {"Redfish Service Hostname", r.hostnameFits ? r.hostname : "<OUT OF SPEC>"},
  };
  // dmidecode shows addresses only for static and auto-configured assignments.
  if (r.hostIpAssignmentType % 2 == 1) {
    f[family + " Address"] = Address(r.addressFormat, r.hostIpAddress);
    f[family + " Mask"] = Address(r.addressFormat, r.hostIpMask);
  }
  if (r.discoveryType % 2 == 1) {
    f[family + " Redfish Service Address"] = Address(r.addressFormat, r.address);
    f[family + " Redfish Service Mask"] = Address(r.addressFormat, r.mask);
    f["Redfish Service Port"] = std::to_string(r.port);
    f["Redfish Service Vlan"] = std::to_string(r.vlan);
  }
  return f;
}

void ExpectAgreement(const std::vector<uint8_t>& table, size_t n,
                     const std::vector<uint8_t>& dump) {
  SMBIOS_RedfishOverIp r{};
  const int status = Parse(table, n, &r);
  const auto theirs = DmidecodeRecord(dump);
  if (status != NUC_OK) {
    EXPECT_TRUE(theirs.empty()) << "dmidecode decoded a record we rejected (" << status << ")";
  } else {
    EXPECT_EQ(Render(r), theirs);
  }
}

bool HaveDmidecode() { return access(DMIDECODE, X_OK) == 0; }

}  // namespace
