// The line editor of CmdLineInterface: keys to edits, history recall and the
// Tab action. The terminal cursor is moved only with backspaces and by
// printing text again, never with cursor-addressing sequences.
#include <syslog.h>

#include <iterator>

#include "cli/candidate_screen.h"
#include "cli/cmd_line_interface.h"
#include "cli/consistency_check.h"

namespace zel::cli {
namespace {

using KeyType = Console::KeyType;

std::string Backspaces(size_t count) { return std::string(count, '\b'); }

// The editor's bounds checks compare 32-bit differences as signed numbers.
bool IsNegative(uint32_t difference) { return static_cast<int32_t>(difference) < 0; }

// Wipes a candidate list drawn below the input line and prints prompt and
// line again: up to the input row, one blank row per candidate, up again.
std::string BuildRestoreText(const std::list<std::string>& candidates, const std::string& prompt,
                             const std::string& line) {
  std::string up;
  for (size_t i = 0; i < candidates.size(); ++i) up += "\x1b[1F";
  std::string text = up;
  for (const std::string& candidate : candidates) {
    text += '\n';
    text.append(candidate.size(), ' ');
  }
  return text + up + prompt + line;
}

}  // namespace

void CmdLineInterface::readLine() {
  cursor = 0;
  currentLine.clear();
  Console::KeyInfo info{0, KeyType::Unknown};
  while (!readKey(&info)) {
  }
}

bool CmdLineInterface::readKey(Console::KeyInfo* info) {
  console.GetKeyInfo(info);
  if (candidateScreen) {
    candidateScreen->onKey(info);
    return false;
  }
  return handleKey(static_cast<char>(info->key & 0xFF), info->type);
}

bool CmdLineInterface::handleKey(char c, Console::KeyType type) {
  switch (type) {
    case KeyType::Char: {
      std::string text(1, c);
      insertString(text);
      return false;
    }
    case KeyType::Backspace:
      deleteString(1);
      return false;
    case KeyType::Enter:
      finishLine();
      return true;
    case KeyType::Left:
      moveLeft(1);
      return false;
    case KeyType::Right:
      moveRight(1);
      return false;
    case KeyType::Up:
      historyPrev(1);
      return false;
    case KeyType::Down:
      historyNext(1);
      return false;
    case KeyType::Home:
      moveLeft(cursor);
      return false;
    case KeyType::End:
      moveRight(static_cast<uint32_t>(currentLine.size()) - cursor);
      return false;
    case KeyType::Tab:
      complete();
      return false;
    case KeyType::PageUp:
      // Jumps to the oldest entry.
      historyPrev(static_cast<uint32_t>(history.size()) - historyOffset - browsingHistory);
      return false;
    case KeyType::PageDown:
      // Jumps back to the line being typed.
      historyNext(browsingHistory + historyOffset);
      return false;
    default:
      // Insert, Delete and word moves are decoded but deliberately unused.
      return false;
  }
}

bool CmdLineInterface::insertString(std::string& s) {
  if (cursor > currentLine.size()) {
    syslog(LOG_ERR, "%s %d : this should not happend\n", "insertString", 466);
    FailConsistencyCheck("cmd_line_interface", 467, "bool zel::cli::CmdLineInterface::insertString(std::string&)");
  }
  const std::string tail = currentLine.substr(cursor);
  // The new text and the old tail, then back to just after the new text.
  console.Write(s + tail + Backspaces(tail.size()));
  currentLine.insert(cursor, s);
  cursor += static_cast<uint32_t>(s.size());
  return true;
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

bool CmdLineInterface::complete() {
  if (currentLine.empty() || commands.empty()) return true;
  // The whole line is the prefix, so a line with an argument matches nothing.
  std::list<std::string> matches;
  for (const Command& cmd : commands) {
    if (cmd.name.rfind(currentLine, 0) == 0) matches.push_back(cmd.name);
  }
  if (matches.empty()) return true;
  if (matches.size() == 1) {
    if (matches.front() == currentLine) return true;
    clearLine();
    insertString(matches.front());
    return true;
  }
  candidateScreen = std::make_unique<CandidateScreen>(matches, BuildRestoreText(matches, prompt, currentLine), this);
  return true;
}

}  // namespace zel::cli
