// Reading tables from files: what the entry point and the size cap let in.

#include <gtest/gtest.h>

#include "platform/mirel/smbios.h"
#include "platform/mirel/zirn.h"
#include "sysinfo_support.h"

namespace {

using sysinfo_test::ReadFile;
using sysinfo_test::WriteFile;

class SmbiosRead : public ::testing::Test {
 protected:
  std::vector<uint8_t> Generate(const std::string& args) {
    int status = -1;
    sysinfo_test::Shell(
        std::string(sysinfo_test::kGenerator) + " --out-sysfs " + dir_.path + " " + args, &status);
    EXPECT_EQ(status, 0);
    return ReadFile(table_);
  }
  int Read(bool withEntryPoint = true) {
    return SMBIOS_ReadRedfishOverIp(withEntryPoint ? entryPoint_.c_str() : nullptr, table_.c_str(),
                                    &record_, nullptr);
  }
  // Rewrites the table length an "_SM3_" entry point announces, checksum included.
  void Announce(uint32_t length, uint8_t checksumError = 0) {
    std::vector<uint8_t> ep = ReadFile(entryPoint_);
    for (int i = 0; i < 4; ++i) ep[0x0C + i] = static_cast<uint8_t>(length >> (8 * i));
    ep[5] = 0;
    uint8_t sum = 0;
    for (size_t i = 0; i < ep[6]; ++i) sum = static_cast<uint8_t>(sum + ep[i]);
    ep[5] = static_cast<uint8_t>(-sum + checksumError);
    WriteFile(entryPoint_, ep);
  }
  sysinfo_test::ScratchDir dir_;
  const std::string entryPoint_ = dir_.Path("smbios_entry_point");
  const std::string table_ = dir_.Path("DMI");
  SMBIOS_RedfishOverIp record_{};
};

TEST_F(SmbiosRead, MissingEmptyOrUnreadableTableIsNoTable) {
  EXPECT_EQ(Read(), NUC_ERR_NO_TABLE);
  WriteFile(table_, {});
  EXPECT_EQ(Read(), NUC_ERR_NO_TABLE);
  EXPECT_EQ(SMBIOS_ReadRedfishOverIp(nullptr, dir_.path.c_str(), nullptr, nullptr),
            NUC_ERR_NO_TABLE);  // a directory
}

TEST_F(SmbiosRead, OnlyWhatAWellFormedEntryPointAnnouncesCounts) {
  const std::vector<uint8_t> withRedfish = Generate("--ipv4 127.0.42.9");
  ASSERT_EQ(Read(), NUC_OK);
  EXPECT_EQ(record_.address[3], 9);

  // A table without a host interface or end marker, followed in the file by
  // one that has both: the entry point announces only the first.
  std::vector<uint8_t> file = Generate("--no-redfish");
  file.resize(file.size() - 6);  // the end-of-table structure
  const size_t announced = file.size();
  file.insert(file.end(), withRedfish.begin(), withRedfish.end());
  WriteFile(table_, file);
  Announce(static_cast<uint32_t>(announced));
  EXPECT_EQ(Read(), NUC_ERR_NO_ENTRY);
  EXPECT_EQ(Read(false), NUC_OK);
  Announce(8);  // ends inside the first structure
  EXPECT_EQ(Read(), NUC_ERR_CORRUPT_TABLE);
  Announce(8, 1);  // a bad checksum: ignored, the whole file counts
  EXPECT_EQ(Read(), NUC_OK);
}

TEST_F(SmbiosRead, ReadsAtMostOneMebibyte) {
  const std::vector<uint8_t> table = Generate("");
  auto writeAfterFiller = [&](size_t structures) {  // OEM type 200, no strings
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < structures; ++i) bytes.insert(bytes.end(), {200, 4, 0, 0, 0, 0});
    bytes.insert(bytes.end(), table.begin(), table.end());
    WriteFile(table_, bytes);
    return bytes.size();
  };
  ASSERT_LE(writeAfterFiller((SMBIOS_MAX_TABLE_BYTES - table.size()) / 6), SMBIOS_MAX_TABLE_BYTES);
  EXPECT_EQ(Read(false), NUC_OK);
  ASSERT_GT(writeAfterFiller(SMBIOS_MAX_TABLE_BYTES / 6), SMBIOS_MAX_TABLE_BYTES);
  EXPECT_NE(Read(false), NUC_OK);
}

}  // namespace
