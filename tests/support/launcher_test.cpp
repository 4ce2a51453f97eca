#include "tests/support/launcher.h"

#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "gtest/gtest.h"

namespace zel::test {
namespace {

// Sets KDX_TEST_LAUNCHER for one test and restores what the run had (a cross
// build's tests run with it set).
class LauncherVariable {
 public:
  explicit LauncherVariable(const char* value) {
    if (const char* saved = std::getenv("KDX_TEST_LAUNCHER")) mSaved = saved;
    if (value != nullptr) {
      ::setenv("KDX_TEST_LAUNCHER", value, 1);
    } else {
      ::unsetenv("KDX_TEST_LAUNCHER");
    }
  }
  ~LauncherVariable() {
    if (mSaved) {
      ::setenv("KDX_TEST_LAUNCHER", mSaved->c_str(), 1);
    } else {
      ::unsetenv("KDX_TEST_LAUNCHER");
    }
  }
  LauncherVariable(const LauncherVariable&) = delete;
  LauncherVariable& operator=(const LauncherVariable&) = delete;

 private:
  std::optional<std::string> mSaved;
};

TEST(LauncherTest, UnsetVariableMeansNoLauncher) {
  LauncherVariable unset(nullptr);
  EXPECT_TRUE(LauncherCommand().empty());
}

TEST(LauncherTest, BlankVariableMeansNoLauncher) {
  LauncherVariable blank("  ");
  EXPECT_TRUE(LauncherCommand().empty());
}

TEST(LauncherTest, WordsAreSplitAtBlanksAndTheProgramIsFoundOnPath) {
  LauncherVariable launcher(" env  -u NAME ");
  const std::vector<std::string> command = LauncherCommand();
  ASSERT_EQ(command.size(), 3u);
  EXPECT_EQ(command[0], ResolveProgram("env"));
  EXPECT_EQ(command[0].substr(command[0].size() - 4), "/env");
  EXPECT_EQ(::access(command[0].c_str(), X_OK), 0);
  EXPECT_EQ(command[1], "-u");
  EXPECT_EQ(command[2], "NAME");
}

TEST(LauncherTest, ProgramWithASlashIsKept) { EXPECT_EQ(ResolveProgram("./not-here/tool"), "./not-here/tool"); }

TEST(LauncherTest, UnknownProgramIsKept) { EXPECT_EQ(ResolveProgram("kdx-no-such-program"), "kdx-no-such-program"); }

}  // namespace
}  // namespace zel::test
