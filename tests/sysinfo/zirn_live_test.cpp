// ZIRN_Get against the real /sys/firmware/dmi/tables path. Runs only inside
// run-private-sysfs, which gives the process its own tmpfs over /sys/firmware;
// each case writes a table there with tools/smbios-gen.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "platform/mirel/zirn.h"
#include "sysinfo_support.h"

namespace {

class ZirnLive : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* flag = std::getenv("SYSINFO_PRIVATE_SYSFS");
    if (flag == nullptr || std::string(flag) != "1") GTEST_SKIP() << "needs run-private-sysfs";
  }
  // Installs a table, then reads the node into a larger buffer full of junk.
  int Get(const std::string& args) {
    int status = -1;
    sysinfo_test::Shell(
        std::string(sysinfo_test::kGenerator) + " --out-sysfs /sys/firmware/dmi/tables " + args,
        &status);
    EXPECT_EQ(status, 0) << args;
    std::memset(buffer_, 0xA5, sizeof buffer_);
    return ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, buffer_, sizeof buffer_);
  }
  // The 30-byte record (little-endian fields) followed by zeros.
  static std::vector<uint8_t> Record(uint32_t discovery, std::vector<uint8_t> ipv4, uint16_t port,
                                     uint32_t vlan) {
    std::vector<uint8_t> e(sizeof buffer_, 0);
    for (int i = 0; i < 4; ++i) e[i] = static_cast<uint8_t>(discovery >> (8 * i));
    e[4] = ipv4.empty() ? 0 : 1;
    std::copy(ipv4.begin(), ipv4.end(), e.begin() + 5);
    e[9] = static_cast<uint8_t>(port);
    e[10] = static_cast<uint8_t>(port >> 8);
    for (int i = 0; i < 4; ++i) e[11 + i] = static_cast<uint8_t>(vlan >> (8 * i));
    return e;
  }
  std::vector<uint8_t> Buffer() const { return {buffer_, buffer_ + sizeof buffer_}; }
  uint8_t buffer_[40];
};

TEST_F(ZirnLive, ReadsTheRecordTheFirmwareTableHolds) {
  ASSERT_EQ(Get(""), NUC_OK);
  EXPECT_EQ(Buffer(), Record(1, {127, 0, 42, 1}, 443, 0));

  ASSERT_EQ(Get("--ipv4 127.1.2.3 --port 8443 --vlan 70000 --discovery auto --entry-point 2 "
                "--kcs-first --device pci"),
            NUC_OK);
  EXPECT_EQ(Buffer(), Record(3, {127, 1, 2, 3}, 8443, 70000));

  ASSERT_EQ(Get("--ipv6-only fd00:42::1"), NUC_OK);  // a record, but no IPv4 address in it
  EXPECT_EQ(Buffer(), Record(1, {}, 443, 0));
}

TEST_F(ZirnLive, ReportsMissingAndBrokenTablesWithAZeroedBuffer) {
  EXPECT_EQ(Get("--no-redfish"), NUC_ERR_NO_ENTRY);
  EXPECT_EQ(Buffer(), std::vector<uint8_t>(sizeof buffer_, 0));
  for (const char* args :
       {"--corrupt struct-past-end", "--corrupt short-record", "--truncate 100"}) {
    EXPECT_EQ(Get(args), NUC_ERR_CORRUPT_TABLE) << args;
  }
  ASSERT_EQ(std::remove("/sys/firmware/dmi/tables/DMI"), 0);
  EXPECT_EQ(ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, buffer_, sizeof buffer_),
            NUC_ERR_NO_TABLE);
  EXPECT_EQ(Buffer(), std::vector<uint8_t>(sizeof buffer_, 0));
}

}  // namespace
