// Runs the command-line interface on the terminal with the built-ins ("help",
// "exit", "quit") and two commands that touch nothing: "echo" prints its
// words, "colors" shows the colours the console can write.
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "cli/cmd_line_interface.h"

namespace {

using zel::cli::CmdLineInterface;
using zel::cli::Console;
using zel::cli::Result;

Result Echo(int argc, char** argv) {
  if (argc < 2) return Result::Usage;
  std::string text = argv[1];
  for (int i = 2; i < argc; ++i) text += std::string(" ") + argv[i];
  std::printf("%s\n", text.c_str());
  return Result::Ok;
}

Result Colors(CmdLineInterface& cli) {
  const std::pair<Console::Color, const char*> colors[] = {
      {Console::Color::Red,     "red"    },
      {Console::Color::Green,   "green"  },
      {Console::Color::Yellow,  "yellow" },
      {Console::Color::Blue,    "blue"   },
      {Console::Color::Magenta, "magenta"},
      {Console::Color::Cyan,    "cyan"   },
  };
  for (const auto& [color, name] : colors) {
    cli.setColor(color);
    // Through stdio like every command's output; flushed before the console
    // writes the next colour directly to the terminal.
    std::printf("%s ", name);
    std::fflush(stdout);  // NOLINT(cert-err33-c): a demo on a terminal has nowhere to report a failed write
  }
  cli.setColor(Console::Color::Reset);
  std::printf("\n");
  return Result::Ok;
}

}  // namespace

int main() {
  CmdLineInterface cli;
  cli.setPrompt("hi>");
  cli.setBanner(
      "*******************************\n"
      " kendrivex cli (demo)\n"
      "*******************************\n");
  cli.registerCommands({
      {"echo",                      "print the words that follow", "echo <words>",      Echo                                    },
      { "colors", "show the console colours",                      "colors", [&cli](int /*argc*/, char** /*argv*/) { return Colors(cli); }},
  });
  cli.run();
  return 0;
}
