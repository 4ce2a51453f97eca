#include "cli/candidate_screen.h"

#include <syslog.h>

#include <iterator>

#include "cli/consistency_check.h"

namespace zel::cli {

using KeyType = Console::KeyType;

CmdLineInterface::CandidateScreen::CandidateScreen(const std::list<std::string>& candidates,
                                                   const std::string& restoreText, CmdLineInterface* owner)
    : selected(0), candidates(candidates), restoreText(restoreText), owner(owner) {
  draw();
}

bool CmdLineInterface::CandidateScreen::draw() {
  int32_t index = 0;
  for (const std::string& candidate : candidates) {
    if (index == selected) owner->console.SetColor(Console::Color::Red);
    owner->putChar('\n');
    owner->console.Write(candidate);
    if (index == selected) owner->console.SetColor(Console::Color::Reset);
    ++index;
  }
  return true;
}

bool CmdLineInterface::CandidateScreen::erase() {
  owner->console.Write(restoreText);
  return true;
}

bool CmdLineInterface::CandidateScreen::moveDown(unsigned n) {
  erase();
  int64_t index = static_cast<int64_t>(selected) + n;
  const auto count = static_cast<int64_t>(candidates.size());
  if (count == 0) {
    selected = static_cast<int32_t>(index);
    return true;
  }
  if (index >= count) index -= count;
  selected = static_cast<int32_t>(index);
  return draw();
}

bool CmdLineInterface::CandidateScreen::moveUp() {
  erase();
  --selected;
  if (selected < 0) selected += static_cast<int32_t>(candidates.size());
  return draw();
}

bool CmdLineInterface::CandidateScreen::moveFirst() {
  erase();
  selected = 0;
  return draw();
}

bool CmdLineInterface::CandidateScreen::select() {
  if (candidates.empty() || static_cast<uint32_t>(selected) >= candidates.size()) {
    syslog(LOG_ERR, "%s %d: don't do this to me :(\n", "bool zel::cli::CmdLineInterface::CandidateScreen::select()",
           698);
    FailConsistencyCheck("cmd_line_interface", 699, "bool zel::cli::CmdLineInterface::CandidateScreen::select()");
  }
  erase();
  CmdLineInterface* const screenOwner = owner;
  screenOwner->clearLine();
  std::string name = *std::next(candidates.begin(), selected);
  if (!name.empty()) screenOwner->insertString(name);
  // Destroys this object: nothing of it may be touched afterwards.
  screenOwner->candidateScreen.reset();
  return true;
}

void CmdLineInterface::CandidateScreen::close() {
  erase();
  CmdLineInterface* const screenOwner = owner;
  // Destroys this object: nothing of it may be touched afterwards.
  screenOwner->candidateScreen.reset();
}

bool CmdLineInterface::CandidateScreen::onKey(Console::KeyInfo* info) {
  switch (info->type) {
    case KeyType::Backspace:
    case KeyType::Tab:
      close();
      break;
    case KeyType::Enter:
      select();
      break;
    case KeyType::Up:
      moveUp();
      break;
    case KeyType::Down:
      moveDown(1);
      break;
    case KeyType::PageUp:
      moveFirst();
      break;
    case KeyType::PageDown:
      // To the last candidate.
      moveDown(static_cast<unsigned>(candidates.size()) - 1 - static_cast<unsigned>(selected));
      break;
    default:
      // Typed characters and every other key are ignored while the list is open.
      break;
  }
  return true;
}

}  // namespace zel::cli
