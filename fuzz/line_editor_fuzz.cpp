// Fuzz target: the line editor, its history, the candidate screen and the
// dispatcher as one state machine, driven key by key from standard input as
// the program reads it, with commands registered beside the built-ins. The
// editor's invariants are checked after every key and every dispatched line;
// the interface's own consistency checks abort, which is a crash to the
// engine. Standard output goes to /dev/null.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <list>
#include <string>

#include "cli/cmd_line_interface.h"
#include "fuzz/require.h"
#include "fuzz/stdin_feed.h"
#include "tests/cli/cli_test_access.h"

namespace {

using zel::cli::CmdLineInterface;
using zel::cli::Result;
using zel::fuzz::Require;
using Access = zel::cli::CmdLineInterfaceTestAccess;

constexpr size_t kMaxHistory = 20;
constexpr int kMaxWords = 10;

// Checks what the dispatcher hands a command, and answers with every kind of
// result in turn (chosen by the word count): success, failure, wrong usage
// and a number the dispatcher knows only as a failure code. A word may begin
// with a zero byte (an escape before a control byte types it into the line),
// so words are not checked for being empty.
Result CheckedHandler(int argc, char** argv) {
  Require(argc >= 1 && argc <= kMaxWords, "a handler gets one to ten words");
  for (int i = 0; i < argc; ++i) {
    Require(argv[i] != nullptr, "every word a handler gets is there");
    Require(std::strpbrk(argv[i], " \t") == nullptr, "no word holds a blank or a tab");
  }
  return static_cast<Result>(argc % 4);
}

// The program's device commands, and a name that is a prefix of two others
// and has no handler, so that Tab meets one match equal to the line as well
// as lists that hold the typed line itself.
void RegisterCommands(CmdLineInterface& cli) {
  cli.registerCommands({
      {"send_ping",         "send ping message",        "send_ping",         CheckedHandler},
      {"atcmd_wlanapclist", "connected stations",       "atcmd_wlanapclist", CheckedHandler},
      {"atcmd_wlanmac",     "access point's address",   "atcmd_wlanmac",     CheckedHandler},
      {"atcmd",             "a prefix with no handler", "atcmd",             nullptr       },
  });
}

// Whether the line runs "exit" or "quit", after which the program's run loop
// ends: its first word, split as the dispatcher splits, names one of them.
bool EndsSession(const std::string& line) {
  const size_t start = line.find_first_not_of(" \t");
  if (start == std::string::npos) return false;
  const std::string word = line.substr(start, line.find_first_of(" \t", start) - start);
  return word == "exit" || word == "quit";
}

void CheckHistory(CmdLineInterface& cli) {
  const std::list<std::string>& history = Access::history(cli);
  Require(history.size() <= kMaxHistory, "at most 20 history entries");
  for (auto it = history.begin(); it != history.end(); ++it) {
    Require(!it->empty(), "no history entry is empty");
    const auto next = std::next(it);
    Require(next == history.end() || *next != *it, "no entry repeats the one before it");
  }
  const uint8_t browsing = Access::browsingHistory(cli);
  Require(browsing == 0 || browsing == 1, "browsing the history is on or off");
  Require(browsing == 1 || Access::historyOffset(cli) == 0, "the history offset is 0 unless browsing");
}

void CheckScreen(CmdLineInterface& cli) {
  Access::Screen* screen = Access::screen(cli);
  if (screen == nullptr) return;
  const size_t count = Access::candidates(*screen).size();
  const int32_t selected = Access::selected(*screen);
  Require(count >= 2, "a candidate list opens only for two names or more");
  Require(selected >= 0 && static_cast<size_t>(selected) < count, "the selection is inside the candidate list");
}

void CheckInvariants(CmdLineInterface& cli) {
  Require(Access::cursor(cli) <= Access::currentLine(cli).size(), "the cursor is within the line");
  CheckHistory(cli);
  CheckScreen(cli);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The editor echoes every key; nobody needs to see it.
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null < 0 || ::dup2(null, STDOUT_FILENO) < 0) return 1;
  ::close(null);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zel::fuzz::StdinFeed feed(data, size);
  CmdLineInterface cli;
  cli.setPrompt("hi>");
  RegisterCommands(cli);
  // Woken up front, so that a key read past the end of the input returns at
  // once; input that is there is still read first. "exit" and "quit" wake it
  // once more and end the session, as in the program: the console's wake-up
  // counter holds only two wake-ups, and a third would wait for ever.
  Access::console(cli).Wakeup();
  Access::startLine(cli);
  while (feed.Remaining() > 0) {
    const bool finished = Access::readKey(cli);
    CheckInvariants(cli);
    if (!finished) continue;
    Require(Access::screen(cli) == nullptr, "no line ends while a candidate list is open");
    const bool last = EndsSession(Access::currentLine(cli));
    Access::executeLine(cli);
    CheckInvariants(cli);
    if (last) break;
    Access::startLine(cli);
  }
  return 0;
}
