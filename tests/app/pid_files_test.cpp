// Files named after a child's process id, made between fork and exec.
#include "tests/support/pid_files.h"

#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/pty_process.h"
#include "tests/support/temp_dir.h"

namespace zel::test {
namespace {

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

TEST(PidFilesTest, NamesHoldTheProcessIdBetweenPrefixAndSuffix) {
  PidFiles files("/d/p-", {"-0", "-1"});
  EXPECT_EQ(files.Names(812), (std::vector<std::string>{"/d/p-812-0", "/d/p-812-1"}));
}

TEST(PidFilesTest, FilesAreMadeForTheCallingProcess) {
  TempDir dir;
  PidFiles files(dir.path() + "/f-", {"-a", ""});
  files.CreateForThisProcess();
  for (const std::string& name : files.Names(::getpid())) EXPECT_TRUE(Exists(name)) << name;
}

TEST(PidFilesTest, FilesMadeInTheChildCarryTheStartedProgramsId) {
  TempDir dir;
  PidFiles files(dir.path() + "/f-", {"-x"});
  PtyProcess::Options options;
  options.inChild = [&files] { files.CreateForThisProcess(); };
  PtyProcess child({"true"}, options);
  ASSERT_TRUE(child.WaitForExit().has_value());
  EXPECT_TRUE(Exists(files.Names(child.Pid())[0]));
}

}  // namespace
}  // namespace zel::test
