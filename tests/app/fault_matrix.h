// The fixture of the fault-matrix tests: the real program against a service
// that goes away, comes back, gets stuck or answers badly. Besides the
// terminal output and the exit status, each case checks what the program
// leaves behind (socket files) and holds while it runs (descriptors, memory),
// read through /proc. One thread at a time.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/app/app_test.h"

namespace zel::app::test {

// The function texts of the client's log lines about a lost service.
extern const char kReconnectText[];
extern const char kSendWhenWritableText[];
extern const char kSendFormatStringText[];

// "NAME=value" for a sanitizer's options variable: what this process has,
// with `option` added.
std::string SanitizerOptionsWith(const char* variable, const std::string& option);

class FaultMatrixTest : public AppTest {
 protected:
  // Client socket files ("ipc_client-...") in the test's directory.
  std::vector<std::string> ClientFilesLeft() const;
  // Open descriptors of the running program.
  size_t ClientDescriptors() const;
  // The running program's resident memory in kB (VmRSS).
  long ClientRssKb() const;

  // Kills the simulator without giving it a chance to clean up, as a crash
  // would: its socket file stays behind.
  void KillSim();
  // A new simulator on the same path, with its own log files.
  void RestartSim(const std::vector<std::string>& options = {});

  // "exit" ends the program with status 0, and no socket file is left.
  void ExpectCleanExit();

  size_t Count(const LogRecord& record) const;
  // The client's warning for a lost service it found again, or not.
  LogRecord Reconnected(ssize_t sent) const;
  LogRecord NotReconnected(ssize_t sent) const;

  int simStarts = 0;
};

}  // namespace zel::app::test
