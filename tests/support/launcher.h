// How tests start programs of this build. A cross-built test runs under an
// emulator, and every program it starts (a binary on a pseudo-terminal, or
// this executable again for a death test) must go through the same emulator:
// KDX_TEST_LAUNCHER holds that command line. Stateless functions.
#pragma once

#include <string>
#include <vector>

namespace zel::test {

// The blank-separated words of KDX_TEST_LAUNCHER with the first resolved on
// PATH (execv does not search it); empty when the variable is unset or blank.
std::vector<std::string> LauncherCommand();

// A program name without a slash resolved on PATH as execvp would; names with
// a slash, and names not found, are returned unchanged.
std::string ResolveProgram(const std::string& name);

}  // namespace zel::test
