#include "sysinfo_support.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

extern char** environ;

namespace sysinfo_test {

CommandResult Run(const std::vector<std::string>& argv) {
  CommandResult result;
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return result;
  if (pipe2(errPipe, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  close(errPipe[1]);
  // Drain both pipes together so neither stream can fill up and stall the child.
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (rc == 0 && open > 0) {
    if (poll(fds, 2, -1) < 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& f : fds) {
    if (f.fd >= 0) close(f.fd);
  }
  if (rc != 0) return result;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ScratchDir::ScratchDir() {
  const char* base = std::getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/sysinfo-test-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed: " << strerror(errno);
  path_ = templ;
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

const char* GeneratorPath() { return SMBIOS_GEN; }

const StructureInfo* GeneratedTable::Find(int type) const {
  for (const auto& s : structures) {
    if (s.type == type) return &s;
  }
  return nullptr;
}

GeneratedTable Generate(const std::vector<std::string>& args) {
  ScratchDir dir;
  std::vector<std::string> argv = {"python3", GeneratorPath(), "--describe",
                                   "--out-table", dir.Path("table"),
                                   "--out-dump", dir.Path("dump")};
  argv.insert(argv.end(), args.begin(), args.end());
  const CommandResult r = Run(argv);
  GeneratedTable g;
  EXPECT_EQ(r.status, 0) << "smbios-gen failed: " << r.err;
  g.table = ReadFile(dir.Path("table"));
  g.dump = ReadFile(dir.Path("dump"));
  std::istringstream lines(r.out);
  std::string line;
  while (std::getline(lines, line)) {
    StructureInfo s;
    unsigned handle = 0;
    size_t length = 0;
    if (std::sscanf(line.c_str(), "type=%d handle=0x%x offset=%zu length=%zu end=%zu", &s.type,
                    &handle, &s.offset, &length, &s.end) == 5) {
      g.structures.push_back(s);
    }
  }
  return g;
}

}  // namespace sysinfo_test
