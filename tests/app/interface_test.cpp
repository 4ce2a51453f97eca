// The command line of the real program: help, usage, unknown words, Tab
// completion and history recall on its own prompt.
#include <string>
#include <vector>

#include "tests/app/app_test.h"

namespace zel::app::test {
namespace {

using namespace keys;

class InterfaceTest : public AppTest {
 protected:
  void SetUp() override {
    StartSim();
    StartSession();
  }
};

TEST_F(InterfaceTest, HelpListsTheSixCommands) { Expect("help\r", "help\r\n" + HelpTable() + "hi>"); }

TEST_F(InterfaceTest, QuestionMarkShowsTheUsageWithoutRunningOrRecording) {
  Expect("send_ping?\r", "send_ping?\r\nUsage : send_ping\r\nhi>");
  // Nothing was recorded: Up finds no history and writes nothing.
  Expect(std::string(kUp) + "x", "x");
  EXPECT_EQ(sim->Requests().size(), 1u);
}

TEST_F(InterfaceTest, UnknownWordIsIgnored) { Expect("ping\r", "ping\r\nhi>"); }

TEST_F(InterfaceTest, TabCompletesTheOnlyMatchingName) {
  Expect(std::string("s") + kTab, "s" + EraseLine(1) + "send_ping");
  Expect(kEnter, "\r\nPING response : PONG\r\nhi>");
}

TEST_F(InterfaceTest, TabListsTheMatchesAndEnterTakesTheSelectedOne) {
  const std::string restore =
      "\x1b[1F\x1b[1F\r\n" + std::string(17, ' ') + "\r\n" + std::string(13, ' ') + "\x1b[1F\x1b[1Fhi>a";
  Expect(std::string("a") + kTab, "a\x1b[31m\r\natcmd_wlanapclist\x1b[0m\r\natcmd_wlanmac");
  Expect(kDown, restore + "\r\natcmd_wlanapclist\x1b[31m\r\natcmd_wlanmac\x1b[0m");
  Expect(kEnter, restore + EraseLine(1) + "atcmd_wlanmac");
  Expect(kEnter, "\r\nWIFI MAC: 02:1a:7d:4c:88:e1\r\nhi>");
}

TEST_F(InterfaceTest, UpRecallsEarlierCommandsToRunAgain) {
  Expect("atcmd_wlanmac\r", "atcmd_wlanmac\r\nWIFI MAC: 02:1a:7d:4c:88:e1\r\nhi>");
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  Expect(kUp, "send_ping");
  Expect(kUp, EraseLine(9) + "atcmd_wlanmac");
  Expect(kEnter, "\r\nWIFI MAC: 02:1a:7d:4c:88:e1\r\nhi>");
  ASSERT_TRUE(sim->WaitForRequests(4));
  const std::vector<SimProcess::Request> requests = sim->Requests();
  EXPECT_EQ(requests[1].text, "3");
  EXPECT_EQ(requests[2].text, "1");
  EXPECT_EQ(requests[3].text, "3");
}

}  // namespace
}  // namespace zel::app::test
