// Puts this test process's standard input and output on a pseudo-terminal for
// the lifetime of the object, so that code which reads keys from descriptor 0
// and writes to descriptor 1 can be driven in-process. The original
// descriptors are restored on destruction. While active, test failures are
// also reported on standard error (the shared test main does that), since
// standard output is the terminal under test. One thread at a time.
#pragma once

#include <string>

#include "tests/support/pty.h"

namespace zel::test {

class PtyStdio {
 public:
  PtyStdio();
  ~PtyStdio();
  PtyStdio(const PtyStdio&) = delete;
  PtyStdio& operator=(const PtyStdio&) = delete;

  // Bytes for the code under test to read, as typed keys.
  void Type(const std::string& keys) { mPty.Write(keys); }

  // Everything written to descriptor 1 since the last call: writes a marker
  // behind it and collects up to the marker, so no waiting on silence is
  // needed. The marker itself is not returned.
  std::string TakeWritten(milliseconds timeout = std::chrono::seconds(10));

  // Closes the terminal's input side for the code under test (reads then fail).
  void CloseInput();

  Pty& pty() { return mPty; }

  // True while some PtyStdio has standard output redirected.
  static bool Active();

 private:
  Pty mPty;
  int mSlave = -1;
  int mSavedIn = -1;
  int mSavedOut = -1;
};

}  // namespace zel::test
