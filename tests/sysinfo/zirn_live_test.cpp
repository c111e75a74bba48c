// ZIRN_Get against the real /sys/firmware/dmi/tables path. Runs only inside
// run-private-sysfs, which gives the process its own tmpfs over /sys/firmware;
// each case writes a table there with tools/smbios-gen.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/mirel/zirn.h"
#include "sysinfo_support.h"

namespace {

constexpr const char kTables[] = "/sys/firmware/dmi/tables";

class ZirnLive : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* flag = std::getenv("SYSINFO_PRIVATE_SYSFS");
    if (flag == nullptr || std::string(flag) != "1") {
      GTEST_SKIP() << "needs the private /sys/firmware of run-private-sysfs";
    }
  }
  void Install(std::vector<std::string> args) {
    std::vector<std::string> argv = {"python3", sysinfo_test::GeneratorPath(), "--out-sysfs",
                                     kTables};
    argv.insert(argv.end(), args.begin(), args.end());
    const auto r = sysinfo_test::Run(argv);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // Calls ZIRN_Get with a buffer larger than the record, pre-filled with junk.
  int Get() {
    std::memset(buffer_, 0xA5, sizeof buffer_);
    return ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, buffer_, sizeof buffer_);
  }
  // The expected 30-byte record followed by zeros.
  static std::vector<uint8_t> Expected(uint32_t discovery, const uint8_t* ipv4, uint16_t port,
                                       uint32_t vlan) {
    std::vector<uint8_t> e(40, 0);
    for (int i = 0; i < 4; ++i) e[i] = static_cast<uint8_t>(discovery >> (8 * i));
    if (ipv4 != nullptr) {
      e[4] = 1;
      std::memcpy(&e[5], ipv4, 4);
    }
    e[9] = static_cast<uint8_t>(port);
    e[10] = static_cast<uint8_t>(port >> 8);
    for (int i = 0; i < 4; ++i) e[11 + i] = static_cast<uint8_t>(vlan >> (8 * i));
    return e;
  }
  std::vector<uint8_t> Buffer() const { return std::vector<uint8_t>(buffer_, buffer_ + 40); }
  static std::string Dmidecode() {
    return sysinfo_test::Run({"dmidecode", "-t", "42"}).out;
  }
  uint8_t buffer_[40];
};

TEST_F(ZirnLive, ReadsTheRecordTheFirmwareTableHolds) {
  const uint8_t loopback[] = {127, 0, 42, 1};
  Install({});
  ASSERT_EQ(Get(), NUC_OK);
  EXPECT_EQ(Buffer(), Expected(1, loopback, 443, 0));
  EXPECT_NE(Dmidecode().find("IPv4 Redfish Service Address: 127.0.42.1"), std::string::npos);

  const uint8_t other[] = {127, 1, 2, 3};
  Install({"--ipv4", "127.1.2.3", "--port", "8443", "--vlan", "70000", "--discovery", "auto",
           "--entry-point", "2", "--kcs-first", "--device", "pci"});
  ASSERT_EQ(Get(), NUC_OK);
  EXPECT_EQ(Buffer(), Expected(3, other, 8443, 70000));
  const std::string shown = Dmidecode();
  EXPECT_NE(shown.find("IPv4 Redfish Service Address: 127.1.2.3"), std::string::npos) << shown;
  EXPECT_NE(shown.find("Redfish Service Port: 8443"), std::string::npos);

  // IPv6 only: the record is there, but without an IPv4 address to offer.
  Install({"--ipv6-only", "fd00:42::1"});
  ASSERT_EQ(Get(), NUC_OK);
  EXPECT_EQ(Buffer(), Expected(1, nullptr, 443, 0));
}

TEST_F(ZirnLive, ReportsMissingAndBrokenTables) {
  Install({"--no-redfish"});
  EXPECT_EQ(Get(), NUC_ERR_NO_ENTRY);
  EXPECT_EQ(Buffer(), std::vector<uint8_t>(40, 0));
  EXPECT_EQ(Dmidecode().find("Redfish"), std::string::npos);

  for (const char* kind : {"struct-past-end", "record-past-struct", "short-record"}) {
    Install({"--corrupt", kind});
    EXPECT_EQ(Get(), NUC_ERR_CORRUPT_TABLE) << kind;
  }
  Install({"--truncate", "100"});
  EXPECT_EQ(Get(), NUC_ERR_CORRUPT_TABLE);

  ASSERT_EQ(std::remove("/sys/firmware/dmi/tables/DMI"), 0);
  EXPECT_EQ(Get(), NUC_ERR_NO_TABLE);
  EXPECT_EQ(Buffer(), std::vector<uint8_t>(40, 0));
}

}  // namespace
