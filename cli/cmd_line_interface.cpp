#include "cli/cmd_line_interface.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "cli/candidate_screen.h"

namespace zel::cli {
namespace {

constexpr int kMaxWords = 10;
constexpr char kSeparators[] = " \t";

// The text followed by blanks up to `width` characters; never cut.
std::string Padded(const std::string& text, uint32_t width) {
  std::string padded = text;
  if (padded.size() < width) padded.append(width - padded.size(), ' ');
  return padded;
}

// One line of the help table: the name and the help text padded to their
// columns, then the usage. The heading is a line of the same form.
std::string HelpLine(const std::string& name, const std::string& explain, const std::string& usage, uint32_t nameWidth,
                     uint32_t explainWidth) {
  std::string line = Padded(name, nameWidth);
  line += '\t';
  line += Padded(explain, explainWidth);
  line += '\t';
  line += usage;
  line += '\n';
  return line;
}

// Splits at blanks and tabs into at most kMaxWords words; the rest of the
// line is dropped.
std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  size_t pos = 0;
  while (words.size() < static_cast<size_t>(kMaxWords)) {
    const size_t start = line.find_first_not_of(kSeparators, pos);
    if (start == std::string::npos) break;
    pos = line.find_first_of(kSeparators, start);
    if (pos == std::string::npos) {
      words.push_back(line.substr(start));
      break;
    }
    words.push_back(line.substr(start, pos - start));
  }
  return words;
}

}  // namespace

CmdLineInterface::CmdLineInterface()
    : defaultPrompt("cli>"),
      maxHistory(20),
      running(false),
      cursor(0),
      maxNameWidth(0),
      maxExplainWidth(0),
      browsingHistory(0),
      historyOffset(0) {
  // The built-ins as data; the usage of each is its name.
  struct BuiltIn {
    const char* name;
    const char* explain;
    Result (CmdLineInterface::*handler)(int, char**);
  };
  static constexpr BuiltIn kBuiltIns[] = {
      {"help", "show commands list", &CmdLineInterface::showHelp},
      {"exit", "exit program",       &CmdLineInterface::stop    },
      {"quit", "quit program",       &CmdLineInterface::stop    },
  };
  for (const BuiltIn& builtIn : kBuiltIns) {
    addCommand({builtIn.name, builtIn.explain, builtIn.name,
                std::bind(builtIn.handler, this, std::placeholders::_1, std::placeholders::_2)});
  }
}

// Out of line, where CandidateScreen is complete.
CmdLineInterface::~CmdLineInterface() = default;

Result CmdLineInterface::setPrompt(const std::string& text) {
  prompt = text;
  return Result::Ok;
}

Result CmdLineInterface::setBanner(const std::string& text) {
  banner = text;
  return Result::Ok;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the interface defines it
void CmdLineInterface::registerCommands(std::vector<Command> cmds) {
  for (const Command& cmd : cmds) addCommand(cmd);
}

void CmdLineInterface::addCommand(const Command& cmd) {
  commands.push_back(cmd);
  maxNameWidth = std::max<uint32_t>(maxNameWidth, static_cast<uint32_t>(cmd.name.size()));
  maxExplainWidth = std::max<uint32_t>(maxExplainWidth, static_cast<uint32_t>(cmd.explain.size()));
}

bool CmdLineInterface::setColor(Console::Color color) {
  console.SetColor(color);
  return true;
}

void CmdLineInterface::run() {
  // A session that ended before it began (a hang-up at start) shows nothing.
  if (sessionEnded()) return;
  console.Write(banner);
  running = true;
  do {
    console.Write(prompt);
    readLine();
    if (!sessionEnded()) executeLine();
    if (sessionEnded()) running = false;
  } while (running);
}

void CmdLineInterface::requestStop() {
  mStopRequested = 1;
  console.Wakeup();
}

bool CmdLineInterface::sessionEnded() const { return mStopRequested != 0 || console.InputEnded(); }

bool CmdLineInterface::notifySignal() { return true; }

bool CmdLineInterface::executeLine() {
  if (currentLine.empty()) return true;
  std::vector<std::string> words = SplitWords(currentLine);
  char* argv[kMaxWords] = {};
  const int argc = static_cast<int>(words.size());
  for (int i = 0; i < argc; ++i) argv[i] = words[i].data();
  dispatch(argc, argv);
  return true;
}

Result CmdLineInterface::dispatch(int argc, char** argv) {
  // A line of blanks and tabs has no command word to look at.
  if (argc <= 0) return Result::Ok;
  char* word = argv[0];
  const size_t length = std::strlen(word);
  const bool usageAsked = length > 0 && word[length - 1] == '?';
  if (usageAsked) word[length - 1] = '\0';

  auto found = commands.begin();
  while (found != commands.end() && found->name != word) ++found;
  // Unknown words are ignored without a message.
  if (found == commands.end()) return Result::Ok;
  // A copy, because a handler may register commands and so move the registry.
  const Command cmd = *found;
  if (usageAsked) {
    std::printf("Usage : %s\n", cmd.usage.c_str());
    return Result::Ok;
  }

  const Result result = cmd.handler ? cmd.handler(argc, argv) : Result::Fail;
  if (result == Result::Usage) {
    std::printf("Usage : %s\n", cmd.usage.c_str());
  } else if (result != Result::Ok) {
    std::printf("Failed to do [%s] ret code [%d]\n", cmd.name.c_str(), static_cast<int>(result));
  }
  addHistory();
  return result;
}

bool CmdLineInterface::addHistory() {
  if (!history.empty() && history.front() == currentLine) return true;
  if (history.size() >= maxHistory) history.pop_back();
  history.push_front(currentLine);
  return true;
}

Result CmdLineInterface::showHelp(int /*argc*/, char** /*argv*/) {
  console.Write(HelpLine("cmd:", "explain:", "usage:", maxNameWidth, maxExplainWidth));
  for (const Command& cmd : commands) {
    console.Write(HelpLine(cmd.name, cmd.explain, cmd.usage, maxNameWidth, maxExplainWidth));
  }
  return Result::Ok;
}

Result CmdLineInterface::stop(int /*argc*/, char** /*argv*/) {
  running = false;
  console.Wakeup();
  return Result::Ok;
}

}  // namespace zel::cli
