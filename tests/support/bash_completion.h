// The candidates a program's bash completion offers at the end of a command
// line, asked of a real bash with Debian's bash-completion loaded as an
// interactive shell loads it. Stateless; one thread at a time.
#pragma once

#include <string>
#include <vector>

namespace zel::test {

// Sources `script` and calls its completion `function` for `line` (whose
// first word is the program, a path the completion runs), with `env` added
// to bash's environment; the candidates, sorted.
std::vector<std::string> CompletionsOf(const std::string& script, const std::string& function, const std::string& line,
                                       const std::vector<std::string>& env = {});

}  // namespace zel::test
