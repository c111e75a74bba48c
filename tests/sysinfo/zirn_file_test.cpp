// Reading tables from files (how much is read, what the entry point limits)
// and the ZIRN calls that need no firmware tables.
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/mirel/smbios.h"
#include "platform/mirel/zirn.h"
#include "sysinfo_support.h"

namespace {

using sysinfo_test::ReadFile;
using sysinfo_test::WriteFile;

class SmbiosRead : public ::testing::Test {
 protected:
  // Writes the generator's sysfs pair into the scratch directory.
  void Generate(std::vector<std::string> args) {
    std::vector<std::string> argv = {"python3", sysinfo_test::GeneratorPath(), "--out-sysfs",
                                     dir_.Path("")};
    argv.insert(argv.end(), args.begin(), args.end());
    ASSERT_EQ(sysinfo_test::Run(argv).status, 0);
  }
  int Read(bool withEntryPoint = true) {
    record_ = SMBIOS_RedfishOverIp{};
    const std::string ep = dir_.Path("smbios_entry_point");
    return SMBIOS_ReadRedfishOverIp(withEntryPoint ? ep.c_str() : nullptr,
                                    dir_.Path("DMI").c_str(), &record_, &problem_);
  }
  sysinfo_test::ScratchDir dir_;
  SMBIOS_RedfishOverIp record_{};
  SMBIOS_Problem problem_{nullptr, 0};
};

TEST_F(SmbiosRead, MissingOrEmptyTableIsNoTable) {
  EXPECT_EQ(Read(), NUC_ERR_NO_TABLE);
  EXPECT_STREQ(problem_.what, "cannot read the SMBIOS table file");
  WriteFile(dir_.Path("DMI"), {});
  EXPECT_EQ(Read(), NUC_ERR_NO_TABLE);
  EXPECT_EQ(SMBIOS_ReadRedfishOverIp(nullptr, dir_.Path("").c_str(), nullptr, nullptr),
            NUC_ERR_NO_TABLE);  // a directory reads as an error, not as a table
}

// Rewrites the table length an "_SM3_" entry point announces, checksum included.
void Announce(const std::string& path, uint32_t length) {
  std::vector<uint8_t> ep = ReadFile(path);
  ASSERT_GE(ep.size(), 0x18u);
  for (int i = 0; i < 4; ++i) ep[0x0C + i] = static_cast<uint8_t>(length >> (8 * i));
  ep[5] = 0;
  uint8_t sum = 0;
  for (size_t i = 0; i < ep[6]; ++i) sum = static_cast<uint8_t>(sum + ep[i]);
  ep[5] = static_cast<uint8_t>(-sum);
  WriteFile(path, ep);
}

TEST_F(SmbiosRead, EntryPointBoundsTheTable) {
  Generate({"--ipv4", "127.0.42.9"});
  const std::vector<uint8_t> withRedfish = ReadFile(dir_.Path("DMI"));
  ASSERT_EQ(Read(), NUC_OK);
  EXPECT_EQ(record_.address[3], 9);

  // A table without a host interface and without its end marker, followed in
  // the file by one that has it: only what the entry point announces counts.
  Generate({"--no-redfish"});
  std::vector<uint8_t> file = ReadFile(dir_.Path("DMI"));
  file.resize(file.size() - 6);  // the end-of-table structure
  const size_t announced = file.size();
  file.insert(file.end(), withRedfish.begin(), withRedfish.end());
  WriteFile(dir_.Path("DMI"), file);
  Announce(dir_.Path("smbios_entry_point"), static_cast<uint32_t>(announced));
  EXPECT_EQ(Read(), NUC_ERR_NO_ENTRY);
  EXPECT_EQ(Read(false), NUC_OK);
  Announce(dir_.Path("smbios_entry_point"), 8);  // ends inside the first structure
  EXPECT_EQ(Read(), NUC_ERR_CORRUPT_TABLE);

  // A broken entry point is ignored: the file's length counts.
  std::vector<uint8_t> ep = ReadFile(dir_.Path("smbios_entry_point"));
  ep[5] ^= 1;
  WriteFile(dir_.Path("smbios_entry_point"), ep);
  EXPECT_EQ(Read(), NUC_OK);
}

TEST_F(SmbiosRead, ReadsAtMostOneMebibyte) {
  // Filler structures (OEM type 200, no strings) ahead of a real table.
  Generate({"--ipv4", "127.0.42.5"});
  const std::vector<uint8_t> table = ReadFile(dir_.Path("DMI"));
  const uint8_t filler[] = {200, 4, 0, 0, 0, 0};
  auto build = [&](size_t fillerCount) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < fillerCount; ++i) bytes.insert(bytes.end(), filler, filler + 6);
    bytes.insert(bytes.end(), table.begin(), table.end());
    WriteFile(dir_.Path("DMI"), bytes);
    return bytes.size();
  };
  ASSERT_LE(build((SMBIOS_MAX_TABLE_BYTES - table.size()) / 6), SMBIOS_MAX_TABLE_BYTES);
  EXPECT_EQ(Read(false), NUC_OK);
  ASSERT_GT(build(SMBIOS_MAX_TABLE_BYTES / 6), SMBIOS_MAX_TABLE_BYTES);
  EXPECT_NE(Read(false), NUC_OK);
}

TEST(ZirnGet, RejectsBadParameters) {
  uint8_t buffer[ZIRN_REDFISH_INFO_SIZE];
  EXPECT_EQ(ZIRN_Get(0x1234, nullptr, buffer, sizeof buffer), NUC_ERR_BAD_PARAM);
  EXPECT_EQ(ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, nullptr, 30), NUC_ERR_BAD_PARAM);
  EXPECT_EQ(ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, buffer, 29), NUC_ERR_BAD_PARAM);
  EXPECT_EQ(ZIRN_Get(ZIRN_NODE_hardware_bios_redfishInfo, nullptr, buffer, -1), NUC_ERR_BAD_PARAM);
}

TEST(ZirnStatus, EachStatusHasItsOwnText) {
  std::set<std::string> texts;
  for (int s : std::initializer_list<int>{NUC_OK, NUC_ERR_BAD_PARAM, NUC_ERR_NO_TABLE, NUC_ERR_NO_ENTRY,
                NUC_ERR_CORRUPT_TABLE, 99, -1}) {
    const char* t = NUC_ReturnStatusToString(s);
    ASSERT_NE(t, nullptr);
    texts.insert(t);
  }
  EXPECT_EQ(texts.size(), 6u);  // 99 and -1 share the unknown-status text
  EXPECT_NE(std::string(NUC_ReturnStatusToString(NUC_ERR_NO_TABLE)).find("/sys/firmware/dmi"),
            std::string::npos);
}

TEST(ZirnCheckSig, WritesTheBuildDateCutToFit) {
  char full[64];
  std::memset(full, 'x', sizeof full);
  const char* mine = nullptr;
  EXPECT_EQ(ZIRN_CheckSig(full, sizeof full, &mine), 0);
  ASSERT_NE(mine, nullptr);
  EXPECT_STREQ(full, mine);
  EXPECT_EQ(std::strlen(mine), std::strlen(__DATE__));

  char small[5];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(ZIRN_CheckSig(small, sizeof small, &mine), 0);
  EXPECT_EQ(std::string(small), std::string(mine, 4));

  char untouched = 'x';
  EXPECT_EQ(ZIRN_CheckSig(&untouched, 0, nullptr), 0);
  EXPECT_EQ(untouched, 'x');
}

}  // namespace
