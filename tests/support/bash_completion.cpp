#include "tests/support/bash_completion.h"

#include <algorithm>
#include <sstream>

#include "gtest/gtest.h"
#include "tests/support/pipe_process.h"

namespace zel::test {
namespace {

const char kBashCompletion[] = "/usr/share/bash-completion/bash_completion";

}  // namespace

std::vector<std::string> CompletionsOf(const std::string& script, const std::string& function, const std::string& line,
                                       const std::vector<std::string>& env) {
  // COMP_WORDS split as bash splits the line, with an empty last word when
  // the line ends in a blank.
  const std::string shell = std::string("source ") + kBashCompletion + "\nsource " + script +
                            "\n"
                            "COMP_LINE=\"$1\"; COMP_POINT=${#COMP_LINE}\n"
                            "read -ra COMP_WORDS <<<\"$COMP_LINE\"\n"
                            "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')\n"
                            "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n" +
                            function + "\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n";
  PipeProcess::Options options;
  options.hostTool = true;
  options.env = env;
  const PipeProcess::Result result = PipeProcess::Run({"/bin/bash", "-c", shell, "bash", line}, "", options);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  std::vector<std::string> words;
  std::istringstream in(result.out);
  for (std::string word; std::getline(in, word);) {
    if (!word.empty()) words.push_back(word);
  }
  std::sort(words.begin(), words.end());
  return words;
}

}  // namespace zel::test
