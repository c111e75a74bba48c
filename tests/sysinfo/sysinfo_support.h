#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Shared by the sysinfo tests: shell commands, scratch directories, files and
// tables from tools/smbios-gen.
namespace sysinfo_test {

extern const char* const kGenerator;  // "python3 <source>/tools/smbios-gen"

// Runs a shell command; returns its standard output, *status its exit status.
std::string Shell(const std::string& command, int* status = nullptr);

// A fresh directory, removed with its contents on destruction.
struct ScratchDir {
  ScratchDir();
  ~ScratchDir();
  std::string Path(const std::string& name) const { return path + "/" + name; }
  std::string path;
};

std::vector<uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);

// A table, the same table in dmidecode's dump layout, and where each structure
// starts and ends (after its strings) as the generator reports them.
struct GeneratedTable {
  std::vector<uint8_t> table;
  std::vector<uint8_t> dump;
  std::vector<std::pair<size_t, size_t>> hostInterfaces;  // type 42 [start, end)
};
GeneratedTable Generate(const std::string& args);

}  // namespace sysinfo_test
