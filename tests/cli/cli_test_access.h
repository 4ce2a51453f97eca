// Test access to the inner state of CmdLineInterface and its candidate screen,
// so that tests can check what the editor and the dispatcher did and reach the
// states that the consistency checks guard. Header-only; no state of its own.
#pragma once

#include <list>
#include <string>

#include "cli/candidate_screen.h"
#include "cli/cmd_line_interface.h"

namespace zel::cli {

class CmdLineInterfaceTestAccess {
 public:
  using Screen = CmdLineInterface::CandidateScreen;

  static std::string& currentLine(CmdLineInterface& cli) { return cli.currentLine; }
  static uint32_t& cursor(CmdLineInterface& cli) { return cli.cursor; }
  static std::list<std::string>& history(CmdLineInterface& cli) { return cli.history; }
  static uint8_t& browsingHistory(CmdLineInterface& cli) { return cli.browsingHistory; }
  static uint32_t& historyOffset(CmdLineInterface& cli) { return cli.historyOffset; }
  static std::string& savedLine(CmdLineInterface& cli) { return cli.savedLine; }
  static bool running(const CmdLineInterface& cli) { return cli.running; }
  static uint32_t maxNameWidth(const CmdLineInterface& cli) { return cli.maxNameWidth; }
  static uint32_t maxExplainWidth(const CmdLineInterface& cli) { return cli.maxExplainWidth; }
  static const std::string& defaultPrompt(const CmdLineInterface& cli) { return cli.defaultPrompt; }
  static uint32_t maxHistory(const CmdLineInterface& cli) { return cli.maxHistory; }
  static Console& console(CmdLineInterface& cli) { return cli.console; }

  // Starts a fresh line, as the run loop does before reading.
  static void startLine(CmdLineInterface& cli) {
    cli.cursor = 0;
    cli.currentLine.clear();
  }
  static void readLine(CmdLineInterface& cli) { cli.readLine(); }
  // Reads and applies one key; true when it finished the line.
  static bool readKey(CmdLineInterface& cli) {
    Console::KeyInfo info{0, Console::KeyType::Unknown};
    return cli.readKey(&info);
  }
  static bool executeLine(CmdLineInterface& cli) { return cli.executeLine(); }
  static Result dispatch(CmdLineInterface& cli, int argc, char** argv) { return cli.dispatch(argc, argv); }
  static bool insertString(CmdLineInterface& cli, std::string& s) { return cli.insertString(s); }
  static bool handleKey(CmdLineInterface& cli, char c, Console::KeyType type) { return cli.handleKey(c, type); }

  static Screen* screen(CmdLineInterface& cli) { return cli.candidateScreen.get(); }
  static int32_t& selected(Screen& screen) { return screen.selected; }
  static const std::list<std::string>& candidates(const Screen& screen) { return screen.candidates; }
  static const std::string& restoreText(const Screen& screen) { return screen.restoreText; }
};

}  // namespace zel::cli
