// The interactive shell: a registry of named commands, a line editor with
// history and Tab completion, and the loop that prompts, reads a line and runs
// its command. Single-threaded: everything runs on the thread that calls run(),
// where a signal handler may also call requestStop(). Owns its console, its
// copies of the commands and the open candidate screen.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "cli/console.h"
#include "cli/result.h"

namespace zel::cli {

class CmdLineInterface {
 public:
  // Receives the word count and the words of the line, the command word first.
  using CommandHandler = std::function<Result(int argc, char** argv)>;

  struct Command {
    std::string name;        // the word that selects the command, case-sensitive
    std::string explain;     // one line for "help"
    std::string usage;       // printed on wrong usage and for "<name>?"
    CommandHandler handler;  // may be empty
  };

  class CandidateScreen;

  // Registers the built-ins "help", "exit" and "quit".
  CmdLineInterface();
  ~CmdLineInterface();
  CmdLineInterface(const CmdLineInterface&) = delete;
  CmdLineInterface& operator=(const CmdLineInterface&) = delete;

  Result setPrompt(const std::string& text);
  Result setBanner(const std::string& text);
  // Appends copies in order. Names are not checked: the first registered
  // command of a name is the one that runs.
  void registerCommands(std::vector<Command> cmds);
  bool setColor(Console::Color color);

  // Prints the banner, then prompts, reads and runs lines until "exit" or
  // "quit" has run, standard input has ended, or a stop was requested. A line
  // that the end of input or a stop leaves unfinished is not run.
  void run();

  // Ends the session as "exit" does, for a signal handler on the loop's
  // thread (a hang-up): a command that is running finishes, and nothing more
  // is printed, read or run. Only sets a flag and wakes the console, so it is
  // async-signal-safe.
  void requestStop();

  // Hook for the process's signal handler; leaves the loop running.
  bool notifySignal();

  // The built-in commands, bound to this interface.
  Result showHelp(int argc, char** argv);
  Result stop(int argc, char** argv);

 private:
  friend class CmdLineInterfaceTestAccess;

  // One editor action for a key type, and whether that key finishes the line.
  // NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): one small table; its rows read key, action, end
  struct KeyBinding {
    Console::KeyType type;
    void (*action)(CmdLineInterface& cli, char c);
    bool finishesLine;
  };
  // The editor's keys; every other key type does nothing.
  static const KeyBinding kKeyBindings[];

  // Collects one line into currentLine; returns after Enter, or with the line
  // unfinished when the session has ended.
  void readLine();
  // Reads one key and applies it; true when it finished the line.
  bool readKey(Console::KeyInfo* info);
  // Splits currentLine into at most ten words and dispatches them.
  bool executeLine();
  Result dispatch(int argc, char** argv);
  bool addHistory();
  void addCommand(const Command& cmd);
  // True once standard input has ended or a stop was requested.
  bool sessionEnded() const;

  // Line editing: each action updates the screen with one console write.
  bool handleKey(char c, Console::KeyType type);
  bool insertString(std::string& s);
  bool insertChar(char c);
  bool deleteString(unsigned n);
  bool moveLeft(unsigned n);
  bool moveRight(unsigned n);
  bool historyPrev(unsigned n);
  bool historyNext(unsigned n);
  bool clearLine();
  bool finishLine();
  bool putChar(char c);
  // Replaces currentLine with a history entry.
  void showEntry(std::string entry);
  std::string historyEntry(uint32_t index) const;
  // The steps of End, Page Up (to the oldest entry) and Page Down (back to
  // the line being typed).
  uint32_t charsAfterCursor() const;
  uint32_t stepsToOldest() const;
  uint32_t stepsToTypedLine() const;
  // The Tab action: completes the line or opens a candidate screen.
  bool complete();

  std::string defaultPrompt;
  uint32_t maxHistory;
  bool running;
  uint32_t cursor;
  uint32_t maxNameWidth;
  uint32_t maxExplainWidth;
  uint8_t browsingHistory;
  uint32_t historyOffset;
  std::string prompt;
  std::string banner;
  std::string currentLine;
  std::string savedLine;
  Console console;
  std::list<std::string> history;  // newest first
  std::vector<Command> commands;   // in registration order
  // While set, keys go to the screen instead of the editor.
  std::unique_ptr<CandidateScreen> candidateScreen;
  // Set by requestStop(), possibly from a signal handler.
  volatile std::sig_atomic_t mStopRequested = 0;
};

}  // namespace zel::cli
