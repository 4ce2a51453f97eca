// The list of command names that Tab shows below the input line when several
// match; the arrow and page keys move the red selection, Enter takes it into
// the line, Backspace and Tab close the list. Runs on the interface's loop
// thread. Owned by its CmdLineInterface, which it only borrows.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "cli/cmd_line_interface.h"
#include "cli/console.h"

namespace zel::cli {

class CmdLineInterface::CandidateScreen {
 public:
  // Draws the list at once. `restoreText` erases the drawn list and prints
  // the owner's prompt and line again.
  CandidateScreen(const std::list<std::string>& candidates, const std::string& restoreText, CmdLineInterface* owner);
  CandidateScreen(const CandidateScreen&) = delete;
  CandidateScreen& operator=(const CandidateScreen&) = delete;

  bool draw();
  bool erase();
  // Moves the selection n rows down, wrapping at the end, and redraws.
  bool moveDown(unsigned n);
  // Takes the selected name into the owner's line and destroys this screen.
  bool select();
  // Applies one key while the screen is open; may destroy this screen.
  bool onKey(Console::KeyInfo* info);

 private:
  friend class CmdLineInterfaceTestAccess;

  // What a key does while the screen is open; the action may destroy it.
  struct KeyBinding {
    Console::KeyType type;
    void (*action)(CandidateScreen& screen);
  };
  // The keys that act on the screen; every other key is ignored.
  static const KeyBinding kKeyBindings[];

  // Erases the list and destroys this screen; the line stays as it is.
  void close();
  bool moveUp();
  bool moveFirst();
  // Moves the selection to the last candidate.
  bool moveLast();

  int32_t selected;
  std::list<std::string> candidates;
  std::string restoreText;
  CmdLineInterface* owner;
};

}  // namespace zel::cli
