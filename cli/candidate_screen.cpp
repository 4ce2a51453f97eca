// Tab completion: the Tab action of the line editor and the candidate screen
// that it opens when several command names match.
#include "cli/candidate_screen.h"

#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "cli/consistency_check.h"

namespace zel::cli {
namespace {

using KeyType = Console::KeyType;

constexpr char kSelectText[] = "bool zel::cli::CmdLineInterface::CandidateScreen::select()";
// Identifies the assertion that guards the selection; it is not a line number.
constexpr unsigned kMsgSelectCheck = 699;

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
    syslog(LOG_ERR, "%s %d: don't do this to me :(\n", kSelectText, 698);
    FailConsistencyCheck(kCheckFileText, kMsgSelectCheck, kSelectText);
  }
  erase();
  owner->clearLine();
  std::string& name = *std::next(candidates.begin(), selected);
  if (!name.empty()) owner->insertString(name);
  return true;
}

// Defined in the scope of the class, so the actions reach its operations.
constexpr CmdLineInterface::CandidateScreen::KeyBinding CmdLineInterface::CandidateScreen::kKeyBindings[] = {
    {KeyType::Backspace, nullptr,                                             KeyOutcome::Close },
    {KeyType::Tab,       nullptr,                                             KeyOutcome::Close },
    {KeyType::Enter,     nullptr,                                             KeyOutcome::Select},
    {KeyType::Up,        [](CandidateScreen& screen) { screen.moveUp(); },    KeyOutcome::Keep  },
    {KeyType::Down,      [](CandidateScreen& screen) { screen.moveDown(1); }, KeyOutcome::Keep  },
    {KeyType::PageUp,    [](CandidateScreen& screen) { screen.moveFirst(); }, KeyOutcome::Keep  },
    {KeyType::PageDown,  [](CandidateScreen& screen) { screen.moveLast(); },  KeyOutcome::Keep  },
};

bool CmdLineInterface::CandidateScreen::moveLast() {
  return moveDown(static_cast<unsigned>(candidates.size()) - 1 - static_cast<unsigned>(selected));
}

CmdLineInterface::CandidateScreen::KeyOutcome CmdLineInterface::CandidateScreen::onKey(Console::KeyInfo* info) {
  const KeyType type = info->type;
  const auto* binding = std::find_if(std::begin(kKeyBindings), std::end(kKeyBindings),
                                     [type](const KeyBinding& key) { return key.type == type; });
  // Typed characters and every other key are ignored while the list is open.
  if (binding == std::end(kKeyBindings)) return KeyOutcome::Keep;
  if (binding->action != nullptr) binding->action(*this);
  return binding->outcome;
}

}  // namespace zel::cli
