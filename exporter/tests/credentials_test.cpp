// The credentials file: only the service's own regular file of one line.
#include "credentials.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <vector>

namespace {

std::string Folder() {
  char name[] = "/tmp/credentials-test-XXXXXX";
  return mkdtemp(name);
}

std::string Write(const std::string& folder, const std::string& name, const std::string& text,
                  mode_t mode = 0600) {
  const std::string path = folder + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  chmod(path.c_str(), mode);
  return path;
}

}  // namespace

TEST(Credentials, RefusesAFileThatIsNotTheServicesOwnOneLine) {
  const std::string folder = Folder();
  const std::string fifo = folder + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  struct Case {
    std::string path;
    const char* said;
  };
  std::vector<Case> cases = {
      {fifo, "a FIFO, not a regular file"},  // and at once, with no writer
      {Write(folder, "nul", std::string("root\0x:password\n", 16)), "NUL byte"},
      {Write(folder, "readable", "root:password\n", 0640), "group or others may read"},
      {Write(folder, "large", "root:" + std::string(5000, 'p')), "larger than 4096 bytes"},
  };
  // Only root can give a file away.
  const std::string theirs = Write(folder, "theirs", "root:password\n");
  if (chown(theirs.c_str(), 65534, 65534) == 0) cases.push_back({theirs, "owned by uid 65534"});
  for (const auto& c : cases) {
    Credentials got;
    std::string error;
    EXPECT_FALSE(LoadCredentials(c.path, got, error)) << c.path;
    EXPECT_NE(error.find(c.said), std::string::npos) << error;
  }
}
