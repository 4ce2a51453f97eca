// The line editor of CmdLineInterface: keys to edits and history recall.
// The terminal cursor is moved only with backspaces and by printing text
// again, never with cursor-addressing sequences.
#include <syslog.h>

#include <algorithm>
#include <iterator>

#include "cli/candidate_screen.h"
#include "cli/cmd_line_interface.h"
#include "cli/consistency_check.h"

namespace zel::cli {
namespace {

using KeyType = Console::KeyType;

constexpr char kInsertStringText[] = "bool zel::cli::CmdLineInterface::insertString(std::string&)";
constexpr char kInsertStringShortText[] = "insertString";
// Identifies the assertion that guards the cursor; it is not a line number.
constexpr unsigned kMsgInsertCursorCheck = 467;

std::string Backspaces(size_t count) { return std::string(count, '\b'); }

// The editor's bounds checks compare 32-bit differences as signed numbers.
bool IsNegative(uint32_t difference) { return static_cast<int32_t>(difference) < 0; }

}  // namespace

void CmdLineInterface::readLine() {
  cursor = 0;
  currentLine.clear();
  Console::KeyInfo info{0, KeyType::Unknown};
  while (!readKey(&info) && !sessionEnded()) {
  }
}

bool CmdLineInterface::readKey(Console::KeyInfo* info) {
  console.GetKeyInfo(info);
  if (!candidateScreen) return handleKey(static_cast<char>(info->key & 0xFF), info->type);
  using KeyOutcome = CandidateScreen::KeyOutcome;
  const KeyOutcome outcome = candidateScreen->onKey(info);
  if (outcome == KeyOutcome::Keep) return false;
  // The screen never destroys itself: it is done once it has been closed
  // or its name taken, and the editor that owns it lets it go here.
  if (outcome == KeyOutcome::Select) {
    candidateScreen->select();
  } else {
    candidateScreen->erase();
  }
  candidateScreen.reset();
  return false;
}

// Each action is one editor operation; their results do not matter here.
// Defined in the scope of the class, so the actions reach its operations.
constexpr CmdLineInterface::KeyBinding CmdLineInterface::kKeyBindings[] = {
    {KeyType::Char,      [](CmdLineInterface& cli, char c) { cli.insertChar(c); },                     false},
    {KeyType::Backspace, [](CmdLineInterface& cli, char) { cli.deleteString(1); },                     false},
    {KeyType::Enter,     [](CmdLineInterface& cli, char) { cli.finishLine(); },                        true },
    {KeyType::Left,      [](CmdLineInterface& cli, char) { cli.moveLeft(1); },                         false},
    {KeyType::Right,     [](CmdLineInterface& cli, char) { cli.moveRight(1); },                        false},
    {KeyType::Up,        [](CmdLineInterface& cli, char) { cli.historyPrev(1); },                      false},
    {KeyType::Down,      [](CmdLineInterface& cli, char) { cli.historyNext(1); },                      false},
    {KeyType::Home,      [](CmdLineInterface& cli, char) { cli.moveLeft(cli.cursor); },                false},
    {KeyType::End,       [](CmdLineInterface& cli, char) { cli.moveRight(cli.charsAfterCursor()); },   false},
    {KeyType::Tab,       [](CmdLineInterface& cli, char) { cli.complete(); },                          false},
    {KeyType::PageUp,    [](CmdLineInterface& cli, char) { cli.historyPrev(cli.stepsToOldest()); },    false},
    {KeyType::PageDown,  [](CmdLineInterface& cli, char) { cli.historyNext(cli.stepsToTypedLine()); }, false},
};

bool CmdLineInterface::handleKey(char c, Console::KeyType type) {
  const auto* binding = std::find_if(std::begin(kKeyBindings), std::end(kKeyBindings),
                                     [type](const KeyBinding& key) { return key.type == type; });
  // Insert, Delete and the word moves are decoded but deliberately unused.
  if (binding == std::end(kKeyBindings)) return false;
  binding->action(*this, c);
  return binding->finishesLine;
}

uint32_t CmdLineInterface::charsAfterCursor() const { return static_cast<uint32_t>(currentLine.size()) - cursor; }

uint32_t CmdLineInterface::stepsToOldest() const {
  return static_cast<uint32_t>(history.size()) - historyOffset - browsingHistory;
}

uint32_t CmdLineInterface::stepsToTypedLine() const { return browsingHistory + historyOffset; }

bool CmdLineInterface::insertString(std::string& s) {
  if (cursor > currentLine.size()) {
    syslog(LOG_ERR, "%s %d : this should not happend\n", kInsertStringShortText, 466);
    FailConsistencyCheck(kCheckFileText, kMsgInsertCursorCheck, kInsertStringText);
  }
  const std::string tail = currentLine.substr(cursor);
  // The new text and the old tail, then back to just after the new text.
  console.Write(s + tail + Backspaces(tail.size()));
  currentLine.insert(cursor, s);
  cursor += static_cast<uint32_t>(s.size());
  return true;
}

bool CmdLineInterface::insertChar(char c) {
  std::string text(1, c);
  return insertString(text);
}

bool CmdLineInterface::deleteString(unsigned n) {
  if (IsNegative(cursor - n)) return false;
  const std::string tail = currentLine.substr(cursor);
  // Back over the deleted text, the tail moved left, blanks over its old
  // end, then back to the cursor.
  console.Write(Backspaces(n) + tail + std::string(n, ' ') + Backspaces(n + tail.size()));
  currentLine.erase(cursor - n, n);
  cursor -= n;
  return true;
}

bool CmdLineInterface::moveLeft(unsigned n) {
  if (IsNegative(cursor - n)) return false;
  console.Write(Backspaces(n));
  cursor -= n;
  return true;
}

bool CmdLineInterface::moveRight(unsigned n) {
  if (currentLine.size() < static_cast<size_t>(cursor) + n) return false;
  const std::string tail = currentLine.substr(cursor);
  console.Write(tail + Backspaces(tail.size() - n));
  cursor += n;
  return true;
}

bool CmdLineInterface::historyPrev(unsigned n) {
  const uint32_t remaining = static_cast<uint32_t>(history.size()) - n - browsingHistory;
  if (IsNegative(remaining) || remaining < historyOffset) return true;
  uint32_t offset = historyOffset;
  if (browsingHistory == 0) {
    // The first step back shows the newest entry and keeps the typed line.
    savedLine = currentLine;
    --n;
    offset = 0;
    browsingHistory = 1;
  }
  historyOffset = offset + n;
  std::string entry = historyEntry(historyOffset);
  if (entry.empty()) return false;
  showEntry(std::move(entry));
  return true;
}

bool CmdLineInterface::historyNext(unsigned n) {
  const uint32_t offset = historyOffset;
  if (IsNegative(offset - n + browsingHistory)) return true;
  if (offset < n) {
    // Past the newest entry: back to the line that was being typed.
    std::string entry = savedLine;
    historyOffset = 0;
    browsingHistory = 0;
    showEntry(std::move(entry));
    return true;
  }
  historyOffset = offset - n;
  std::string entry = historyEntry(historyOffset);
  if (entry.empty()) return false;
  showEntry(std::move(entry));
  return true;
}

void CmdLineInterface::showEntry(std::string entry) {
  clearLine();
  insertString(entry);
}

std::string CmdLineInterface::historyEntry(uint32_t index) const {
  if (index >= history.size()) return std::string();
  return *std::next(history.begin(), index);
}

bool CmdLineInterface::clearLine() {
  const size_t length = currentLine.size();
  if (length == 0) return true;
  // Assumes the terminal cursor at the end of the line. The closing NUL
  // byte is part of what the terminal receives.
  std::string erase = Backspaces(length) + std::string(length, ' ') + Backspaces(length);
  erase += '\0';
  console.Write(erase);
  currentLine.clear();
  cursor = 0;
  return true;
}

bool CmdLineInterface::finishLine() {
  historyOffset = 0;
  browsingHistory = 0;
  savedLine.clear();
  return console.Write("\n");
}

bool CmdLineInterface::putChar(char c) { return console.Write(std::string(1, c)); }

}  // namespace zel::cli
