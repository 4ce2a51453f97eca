// Files whose names hold a process id, made in the child between fork and exec
// (see PtyProcess::Options::inChild): there the id is the child's own, and
// the program it starts keeps it. The name parts are fixed at construction,
// before the fork; afterwards the object is only read, from any process.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zel::test {

class PidFiles {
 public:
  // Each name is `prefix`, the process id in decimal, then one of `suffixes`.
  PidFiles(std::string prefix, std::vector<std::string> suffixes);

  // Creates every file (empty) for the calling process. Only async-signal-safe
  // calls (getpid, open, close) and no allocation, so it may run in the
  // child of a threaded test.
  void CreateForThisProcess() const;

  // The names for the process `pid`.
  std::vector<std::string> Names(pid_t pid) const;

 private:
  std::string mPrefix;
  std::vector<std::string> mSuffixes;
};

}  // namespace zel::test
