// Standard output and standard error of kendrivex-ctl. Every piece of output
// goes out in one write, unbuffered, so that a reader of a pipe sees each
// line as soon as it is made and the lines of a program run per event never
// cut into them. Output remembers the first failed write of standard output,
// so that the program can end as a closed pipe asks. Main thread only.
#pragma once

#include <string>

#include "tools/service_client/failure.h"

namespace zel::ctl {

class Output {
 public:
  // False once a write of standard output has failed; nothing more is
  // written to it then.
  bool Write(const std::string& text);
  bool Broken() const { return mError != 0; }
  // The errno of the failed write, 0 while none failed.
  int Error() const { return mError; }

 private:
  int mError = 0;
};

// The failure's line on standard error: "kendrivex-ctl: <what>: <why>".
void Report(const service_client::Failure& failure);
// Text as it is on standard error.
void WriteError(const std::string& text);

// The exit status, once every socket file is gone. Output into a closed
// pipe ends the program as SIGPIPE would have, had it not been ignored until
// the clean-up was done; any other failed write is a local failure.
int Finish(const Output& output, int status);

}  // namespace zel::ctl
