// Runs commands from standard input, one a line, in order: words split at
// blanks and tabs, blank lines and lines starting with '#' skipped. A failing
// line does not stop the batch; the exit status is that of the first failure.
// End of input, from a pipe, a file or a terminal, ends it. One thread.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tools/ctl/output.h"
#include "tools/ctl/settings.h"

namespace zel::ctl {

class BatchRunner {
 public:
  BatchRunner(const Settings& settings, Output& output) : mSettings(settings), mOutput(output) {}

  // Reads `input` to its end (or until standard output fails); the batch's
  // exit status.
  int Run(FILE* input);

  // The words of a line: split at blanks and tabs, none empty.
  static std::vector<std::string> Words(const std::string& line);

 private:
  const Settings& mSettings;
  Output& mOutput;
};

}  // namespace zel::ctl
