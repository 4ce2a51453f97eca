#include "tests/support/launcher.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace zel::test {

std::vector<std::string> LauncherCommand() {
  std::vector<std::string> words;
  const char* launcher = std::getenv("KDX_TEST_LAUNCHER");
  if (launcher == nullptr) return words;
  std::istringstream in(launcher);
  for (std::string word; in >> word;) words.push_back(word);
  if (!words.empty()) words[0] = ResolveProgram(words[0]);
  return words;
}

std::string ResolveProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return name;
}

}  // namespace zel::test
