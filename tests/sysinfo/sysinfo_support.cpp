#include "sysinfo_support.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

namespace sysinfo_test {

const char* const kGenerator = "python3 " SMBIOS_GEN;

std::string Shell(const std::string& command, int* status) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  const int rc = pclose(pipe);
  if (status != nullptr) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

ScratchDir::ScratchDir() {
  path = (std::filesystem::temp_directory_path() / "sysinfo-test-XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

GeneratedTable Generate(const std::string& args) {
  ScratchDir dir;
  int status = -1;
  std::istringstream layout(Shell(std::string(kGenerator) + " --describe --out-table " +
                                      dir.Path("t") + " --out-dump " + dir.Path("d") + " " + args,
                                  &status));
  EXPECT_EQ(status, 0) << "smbios-gen " << args;
  GeneratedTable g{ReadFile(dir.Path("t")), ReadFile(dir.Path("d")), {}};
  std::string line;
  while (std::getline(layout, line)) {
    size_t start = 0, end = 0;
    if (std::sscanf(line.c_str(), "type=42 handle=%*x offset=%zu length=%*u end=%zu", &start,
                    &end) == 2) {
      g.hostInterfaces.emplace_back(start, end);
    }
  }
  return g;
}

}  // namespace sysinfo_test
