#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Helpers shared by the sysinfo tests: running tools/smbios-gen and dmidecode,
// scratch directories, whole-file I/O.
namespace sysinfo_test {

struct CommandResult {
  int status = -1;  // exit status, or -1 when the command could not run
  std::string out;
  std::string err;
};

// Runs argv[0] with the arguments (no shell), capturing both streams.
CommandResult Run(const std::vector<std::string>& argv);

// A fresh directory under TMPDIR, removed with its contents on destruction.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  std::string Path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::vector<uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);

struct StructureInfo {
  int type = 0;
  size_t offset = 0;
  size_t end = 0;  // first byte after the structure's strings
};

// A table from tools/smbios-gen with its layout as the generator reports it.
struct GeneratedTable {
  std::vector<uint8_t> table;
  std::vector<uint8_t> dump;  // the same table in dmidecode's --dump-bin layout
  std::vector<StructureInfo> structures;
  // The first structure of the given type, or nullptr.
  const StructureInfo* Find(int type) const;
};

// Runs the generator with extra arguments; fails the calling test on error.
GeneratedTable Generate(const std::vector<std::string>& args);

// Path of the generator script.
const char* GeneratorPath();

}  // namespace sysinfo_test
