// The mode of the program's socket files: readable and writable by their
// owner only, or by the group too in a directory shared with a group,
// whatever the umask it was started with; and a program run per event gets
// that umask back.
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/tools/ctl/ctl_test.h"

namespace zel::ctl::test {
namespace {

using Answer = FakeService::Answer;
using std::chrono::milliseconds;

// The permission bits of the file at `path`, or -1 when there is none.
int ModeOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 07777);
}

class CtlSocketModeTest : public CtlTest {
 protected:
  // The program starts with the umask that gives the most away; the test's
  // own is put back afterwards.
  void SetUp() override { mSaved = ::umask(0); }
  void TearDown() override { ::umask(mSaved); }

  // The mode of the socket a one-shot ping sends from, looked at while it
  // waits for its reply.
  int OneShotSocketMode() {
    StartFake();
    fake->Script(1, Answer::Reply("1\tPONG", milliseconds(1000)));
    auto ctl = StartCtl({"ping"}, Options());
    EXPECT_TRUE(fake->WaitForRequests(1));
    const int mode = fake->Requests().empty() ? -1 : ModeOf(fake->Requests()[0].sender);
    EXPECT_EQ(ctl->Finish().exitCode, 0);
    return mode;
  }

 private:
  mode_t mSaved = 0;
};

TEST_F(CtlSocketModeTest, ClientSocketIsTheOwnersAloneWhateverTheUmask) { EXPECT_EQ(OneShotSocketMode(), 0600); }

TEST_F(CtlSocketModeTest, ClientSocketInASetGroupIdDirectoryIsTheGroupsToo) {
  ASSERT_EQ(::chmod(dir.path().c_str(), 02750), 0);
  EXPECT_EQ(OneShotSocketMode(), 0660);
}

TEST_F(CtlSocketModeTest, ClientSocketInAGroupWritableDirectoryIsTheGroupsToo) {
  ASSERT_EQ(::chmod(dir.path().c_str(), 0770), 0);
  EXPECT_EQ(OneShotSocketMode(), 0660);
}

TEST_F(CtlSocketModeTest, ClientSocketInAWorldWritableDirectoryIsTheOwnersAlone) {
  ASSERT_EQ(::chmod(dir.path().c_str(), 01777), 0);
  EXPECT_EQ(OneShotSocketMode(), 0600);
}

TEST_F(CtlSocketModeTest, WatchSocketsAreTheOwnersAloneAndItsProgramGetsTheUmaskBack) {
  StartFake();
  const std::string program = dir.File("handler");
  std::ofstream(program) << "#!/bin/sh\numask > " << dir.File("umask") << "\n";
  ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
  auto watch = StartCtl({"watch", "--exec", program, "--count", "1"}, UncapturedOptions());
  ASSERT_TRUE(fake->WaitForRequestsFor(4, 1));
  const FakeService::Request registration = fake->RequestsFor(4)[0];
  const std::string eventPath = Argument(registration.text);
  EXPECT_EQ(ModeOf(eventPath), 0600);
  EXPECT_EQ(ModeOf(registration.sender), 0600);
  ASSERT_TRUE(fake->SendTo(eventPath, "7"));
  EXPECT_EQ(watch->Finish().exitCode, 0);
  std::ifstream umaskFile(dir.File("umask"));
  std::string umask;
  std::getline(umaskFile, umask);
  EXPECT_EQ(umask, "0000");
}

}  // namespace
}  // namespace zel::ctl::test
