// Standard output and standard error of kendrivex-ctl. Every piece of output
// goes out in one write, unbuffered, so that a reader of a pipe sees each
// line as soon as it is made and the lines of a program run per event never
// cut into them. Remembers the first failed write of standard output, so that
// the program can end as a closed pipe asks. One thread (main).
#pragma once

#include <string>

#include "tools/ctl/failure.h"

namespace zel::ctl {

class Output {
 public:
  // False once a write of standard output has failed; nothing more is
  // written to it then.
  bool Write(const std::string& text);
  bool Broken() const { return mError != 0; }
  // The errno of the failed write, 0 while none failed.
  int Error() const { return mError; }

  // The failure's line on standard error.
  static void Report(const Failure& failure);
  // Text as it is on standard error (the help text of a wrong command line,
  // diagnostics).
  static void WriteError(const std::string& text);

 private:
  int mError = 0;
};

}  // namespace zel::ctl
