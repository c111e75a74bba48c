// The SMBIOS reader on tables from tools/smbios-gen: each variant decodes (or
// fails) as it should, cut tables never read past their end, and the decoded
// fields match what dmidecode makes of the same bytes.
#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/mirel/smbios.h"
#include "platform/mirel/zirn.h"
#include "sysinfo_support.h"

namespace {

using sysinfo_test::Generate;
using sysinfo_test::GeneratedTable;

// Parses from an exact-size heap copy, so a sanitizer sees any read past the end.
int Parse(const std::vector<uint8_t>& bytes, size_t length, SMBIOS_RedfishOverIp* record,
          SMBIOS_Problem* problem = nullptr) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[length ? length : 1]);
  std::memcpy(copy.get(), bytes.data(), length);
  return SMBIOS_FindRedfishOverIp(length ? copy.get() : nullptr, length, record, problem);
}

struct Variant {
  const char* name;
  std::vector<std::string> args;
  int status;
  // Checked only when status is NUC_OK.
  uint8_t discovery = 1;
  uint8_t format = SMBIOS_ADDRESS_FORMAT_IPV4;
  const char* address = "127.0.42.1";
  uint16_t port = 443;
  uint32_t vlan = 0;
  const char* hostname = "bmc.local";
  bool hostnameFits = true;
};

void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

std::string AddressText(const SMBIOS_RedfishOverIp& r, const uint8_t* bytes) {
  char text[INET6_ADDRSTRLEN] = "";
  const int family = r.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV6 ? AF_INET6 : AF_INET;
  inet_ntop(family, bytes, text, sizeof text);
  return text;
}

const std::vector<Variant>& Variants() {
  static const std::vector<Variant> v = {
      {"ipv4_default", {}, NUC_OK},
      {"ipv4_pci_dhcp_vlan",
       {"--ipv4", "127.1.2.3", "--port", "8443", "--vlan", "4094", "--discovery", "dhcp",
        "--device", "pci-v2", "--hostname", "mc"},
       NUC_OK, 2, SMBIOS_ADDRESS_FORMAT_IPV4, "127.1.2.3", 8443, 4094, "mc"},
      {"ipv6_only", {"--ipv6-only", "fd00:42::1", "--discovery", "auto"}, NUC_OK, 3,
       SMBIOS_ADDRESS_FORMAT_IPV6, "fd00:42::1"},
      {"kcs_before_network", {"--kcs-first", "--device", "usb-v2"}, NUC_OK},
      {"empty_hostname", {"--hostname", "", "--discovery", "host"}, NUC_OK, 4,
       SMBIOS_ADDRESS_FORMAT_IPV4, "127.0.42.1", 443, 0, ""},
      {"extra_record_first", {"--corrupt", "extra-record"}, NUC_OK},
      {"hostname_past_record", {"--corrupt", "hostname-past-record"}, NUC_OK, 1,
       SMBIOS_ADDRESS_FORMAT_IPV4, "127.0.42.1", 443, 0, "", false},
      {"entry_point_checksum", {"--corrupt", "entry-point-checksum"}, NUC_OK},
      {"no_redfish", {"--no-redfish"}, NUC_ERR_NO_ENTRY},
      {"struct_past_end", {"--corrupt", "struct-past-end"}, NUC_ERR_CORRUPT_TABLE},
      {"no_terminator", {"--corrupt", "no-terminator", "--device", "usb-v2"}, NUC_ERR_CORRUPT_TABLE},
      {"short_header", {"--corrupt", "short-header"}, NUC_ERR_CORRUPT_TABLE},
      {"iface_data_past_struct", {"--corrupt", "iface-data-past-struct"}, NUC_ERR_CORRUPT_TABLE},
      {"record_past_struct", {"--corrupt", "record-past-struct"}, NUC_ERR_CORRUPT_TABLE},
      {"count_past_struct", {"--corrupt", "count-past-struct"}, NUC_ERR_CORRUPT_TABLE},
      {"short_record", {"--corrupt", "short-record"}, NUC_ERR_CORRUPT_TABLE},
  };
  return v;
}

class SmbiosVariant : public ::testing::TestWithParam<Variant> {};

TEST_P(SmbiosVariant, DecodesAsGenerated) {
  const Variant& v = GetParam();
  const GeneratedTable g = Generate(v.args);
  ASSERT_FALSE(g.table.empty());
  SMBIOS_RedfishOverIp r{};
  SMBIOS_Problem problem{nullptr, 0};
  ASSERT_EQ(Parse(g.table, g.table.size(), &r, &problem), v.status)
      << (problem.what ? problem.what : "") << " at " << problem.offset;
  if (v.status != NUC_OK) {
    ASSERT_NE(problem.what, nullptr);
    EXPECT_LT(problem.offset, g.table.size());
    return;
  }
  const auto* hi = g.structures.data();
  for (const auto& s : g.structures) {
    if (s.type == 42) hi = &s;  // the network interface is the last type 42
  }
  EXPECT_EQ(r.structureOffset, hi->offset);
  EXPECT_EQ(r.discoveryType, v.discovery);
  EXPECT_EQ(r.addressFormat, v.format);
  EXPECT_EQ(AddressText(r, r.address), v.address);
  EXPECT_EQ(r.port, v.port);
  EXPECT_EQ(r.vlan, v.vlan);
  EXPECT_STREQ(r.hostname, v.hostname);
  EXPECT_EQ(r.hostnameFits, v.hostnameFits);
}

INSTANTIATE_TEST_SUITE_P(Generated, SmbiosVariant, ::testing::ValuesIn(Variants()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SmbiosParse, RejectsMissingTable) {
  SMBIOS_RedfishOverIp r{};
  EXPECT_EQ(SMBIOS_FindRedfishOverIp(nullptr, 100, &r, nullptr), NUC_ERR_NO_TABLE);
  const uint8_t one = 0;
  EXPECT_EQ(SMBIOS_FindRedfishOverIp(&one, 0, &r, nullptr), NUC_ERR_NO_TABLE);
}

// Every prefix of a good table: nothing is decoded until the host interface
// structure is complete, and then it decodes exactly as the whole table does.
TEST(SmbiosParse, TruncatedTablesFailUntilTheRecordIsWhole) {
  const GeneratedTable g = Generate({"--kcs-first", "--device", "usb-v2"});
  SMBIOS_RedfishOverIp whole{};
  ASSERT_EQ(Parse(g.table, g.table.size(), &whole), NUC_OK);
  const size_t start = whole.structureOffset;
  size_t end = 0;
  for (const auto& s : g.structures) {
    if (s.offset == start) end = s.end;
  }
  ASSERT_GT(end, start);
  for (size_t n = 0; n <= g.table.size(); ++n) {
    SCOPED_TRACE("length " + std::to_string(n));
    SMBIOS_RedfishOverIp r{};
    const int status = Parse(g.table, n, &r);
    if (n >= end) {
      ASSERT_EQ(status, NUC_OK);
      EXPECT_EQ(std::memcmp(&r.address, &whole.address, sizeof r.address), 0);
      EXPECT_EQ(r.port, whole.port);
      EXPECT_STREQ(r.hostname, whole.hostname);
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

TEST(SmbiosEntryPoint, AnnouncesTheTableLength) {
  sysinfo_test::ScratchDir dir;
  for (const char* format : {"3", "2"}) {
    SCOPED_TRACE(std::string("entry point ") + format);
    for (bool corrupt : {false, true}) {
      std::vector<std::string> argv = {"python3", sysinfo_test::GeneratorPath(), "--entry-point",
                                       format, "--out-sysfs", dir.Path("sys")};
      if (corrupt) argv.insert(argv.end(), {"--corrupt", "entry-point-checksum"});
      ASSERT_EQ(sysinfo_test::Run(argv).status, 0);
      auto ep = sysinfo_test::ReadFile(dir.Path("sys/smbios_entry_point"));
      const size_t table = sysinfo_test::ReadFile(dir.Path("sys/DMI")).size();
      EXPECT_EQ(SMBIOS_TableLengthFromEntryPoint(ep.data(), ep.size()), corrupt ? 0 : table);
      if (corrupt) continue;
      // Every cut of the entry point is rejected rather than read past.
      for (size_t n = 0; n < ep.size(); ++n) {
        std::vector<uint8_t> cut(ep.begin(), ep.begin() + static_cast<long>(n));
        EXPECT_EQ(SMBIOS_TableLengthFromEntryPoint(cut.data(), cut.size()), 0u) << n;
      }
    }
  }
  // The legacy 15-byte "_DMI_" form.
  uint8_t legacy[15] = {'_', 'D', 'M', 'I', '_', 0, 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0x21};
  uint8_t sum = 0;
  for (uint8_t b : legacy) sum = static_cast<uint8_t>(sum + b);
  legacy[5] = static_cast<uint8_t>(-sum);
  EXPECT_EQ(SMBIOS_TableLengthFromEntryPoint(legacy, sizeof legacy), 0x1234u);
}

// --- agreement with dmidecode ----------------------------------------------

// The Redfish record lines dmidecode prints for the first network interface,
// keyed by label; empty when it printed none or complained about the structure.
std::map<std::string, std::string> DmidecodeRecord(const std::vector<uint8_t>& dump) {
  sysinfo_test::ScratchDir dir;
  sysinfo_test::WriteFile(dir.Path("dump"), dump);
  const auto r = sysinfo_test::Run({DMIDECODE, "--from-dump", dir.Path("dump"), "-t", "42"});
  std::map<std::string, std::string> fields;
  if (r.err.find("exceeds total structure length") != std::string::npos) return fields;
  std::istringstream lines(r.out);
  std::string line;
  bool network = false;
  bool redfish = false;
  while (std::getline(lines, line)) {
    if (line.rfind("Handle ", 0) == 0) {
      if (redfish) break;
      network = false;
    } else if (line == "\tHost Interface Type: Network") {
      network = true;
    } else if (network && line.rfind("\tProtocol ID: ", 0) == 0) {
      if (redfish) break;
      redfish = line.find("(Redfish over IP)") != std::string::npos;
    } else if (redfish && line.rfind("\t\t", 0) == 0) {
      const size_t colon = line.find(": ");
      if (colon != std::string::npos) fields[line.substr(2, colon - 2)] = line.substr(colon + 2);
    }
  }
  if (fields.count("Redfish Service IP Discovery Type") == 0) fields.clear();
  return fields;
}

// Our record rendered the way dmidecode prints it.
std::map<std::string, std::string> Render(const SMBIOS_RedfishOverIp& r) {
  static const char* const kTypes[] = {"Unknown", "Static", "DHCP", "AutoConf", "Host Selected"};
  auto type = [](uint8_t t) { return std::string(t <= 4 ? kTypes[t] : "<OUT OF SPEC>"); };
  const std::string family = r.addressFormat == SMBIOS_ADDRESS_FORMAT_IPV6 ? "IPv6" : "IPv4";
  const uint8_t* u = r.serviceUuid;
  char uuid[40];
  std::snprintf(uuid, sizeof uuid,
                "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[3], u[2],
                u[1], u[0], u[5], u[4], u[7], u[6], u[8], u[9], u[10], u[11], u[12], u[13], u[14],
                u[15]);
  std::map<std::string, std::string> f = {
      {"Service UUID", uuid},
      {"Host IP Assignment Type", type(r.hostIpAssignmentType)},
      {"Host IP Address Format", family},
      {"Redfish Service IP Discovery Type", type(r.discoveryType)},
      {"Redfish Service IP Address Format", family},
      {"Redfish Service Hostname", r.hostnameFits ? r.hostname : "<OUT OF SPEC>"},
  };
  // dmidecode shows addresses only where the type says they were set statically.
  if (r.hostIpAssignmentType == 1 || r.hostIpAssignmentType == 3) {
    f[family + " Address"] = AddressText(r, r.hostIpAddress);
    f[family + " Mask"] = AddressText(r, r.hostIpMask);
  }
  if (r.discoveryType == 1 || r.discoveryType == 3) {
    f[family + " Redfish Service Address"] = AddressText(r, r.address);
    f[family + " Redfish Service Mask"] = AddressText(r, r.mask);
    f["Redfish Service Port"] = std::to_string(r.port);
    f["Redfish Service Vlan"] = std::to_string(r.vlan);
  }
  return f;
}

void ExpectAgreement(const std::vector<uint8_t>& table, size_t length,
                     const std::vector<uint8_t>& dump) {
  SMBIOS_RedfishOverIp r{};
  const int status = Parse(table, length, &r);
  const auto theirs = DmidecodeRecord(dump);
  if (status != NUC_OK) {
    EXPECT_TRUE(theirs.empty()) << "dmidecode decoded a record we rejected (status " << status << ")";
  } else {
    EXPECT_EQ(Render(r), theirs);
  }
}

class DmidecodeAgreement : public ::testing::TestWithParam<Variant> {
 protected:
  void SetUp() override {
    if (access(DMIDECODE, X_OK) != 0) GTEST_SKIP() << "dmidecode is not installed";
  }
};

TEST_P(DmidecodeAgreement, SameRecordAsDmidecode) {
  const GeneratedTable g = Generate(GetParam().args);
  ExpectAgreement(g.table, g.table.size(), g.dump);
}

// dmidecode refuses a broken entry point before it looks at the table.
std::vector<Variant> VariantsWithGoodEntryPoints() {
  std::vector<Variant> v;
  for (const auto& variant : Variants()) {
    if (std::string(variant.name) != "entry_point_checksum") v.push_back(variant);
  }
  return v;
}

INSTANTIATE_TEST_SUITE_P(Generated, DmidecodeAgreement,
                         ::testing::ValuesIn(VariantsWithGoodEntryPoints()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(DmidecodeAgreement, SameVerdictOnEveryCut) {
  const GeneratedTable g = Generate({"--ipv4", "127.0.42.7", "--port", "8443"});
  const size_t header = g.dump.size() - g.table.size();
  for (size_t n = 0; n <= g.table.size(); ++n) {
    SCOPED_TRACE("length " + std::to_string(n));
    const std::vector<uint8_t> dump(g.dump.begin(), g.dump.begin() + static_cast<long>(header + n));
    ExpectAgreement(g.table, n, dump);
  }
}

}  // namespace
