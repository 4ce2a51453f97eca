// The list of command names that Tab shows below the input line when several
// match; the arrow and page keys move the red selection, Enter takes it into
// the line, Backspace and Tab close the list. Runs on the interface's loop
// thread. Owned by its CmdLineInterface, which it only borrows and which alone
// destroys it.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "cli/cmd_line_interface.h"
#include "cli/console.h"

namespace zel::cli {

class CmdLineInterface::CandidateScreen {
 public:
  // What a key leaves for the editor to do: nothing, close the list (erase it
  // and destroy the screen), or select (take the selected name into the line
  // and destroy the screen).
  enum class KeyOutcome { Keep, Close, Select };

  // Draws the list at once. `restoreText` erases the drawn list and prints
  // the owner's prompt and line again.
  CandidateScreen(const std::list<std::string>& candidates, const std::string& restoreText, CmdLineInterface* owner);
  CandidateScreen(const CandidateScreen&) = delete;
  CandidateScreen& operator=(const CandidateScreen&) = delete;

  bool draw();
  bool erase();
  // Moves the selection n rows down, wrapping at the end, and redraws.
  bool moveDown(unsigned n);
  // Erases the list and takes the selected name into the owner's line.
  bool select();
  // Applies one key while the screen is open: the navigation keys move the
  // selection here; closing and selecting are left to the editor.
  KeyOutcome onKey(Console::KeyInfo* info);

 private:
  friend class CmdLineInterfaceTestAccess;

  // What a key does to the screen (the navigation keys), and what it leaves
  // for the editor to do.
  struct KeyBinding {
    Console::KeyType type;
    void (*action)(CandidateScreen& screen);
    KeyOutcome outcome;
  };
  // The keys that act on the screen; every other key is ignored.
  static const KeyBinding kKeyBindings[];

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
