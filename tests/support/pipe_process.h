// Runs a program as a script would: standard input from a file or from a pipe
// that the test writes to, standard output and standard error collected apart
// by a thread of this object as they come. If KDX_TEST_LAUNCHER is set (an
// emulator command line), its words are put before the program's. Owns the
// child: one still running at destruction is killed and reaped. Use from one
// thread; the collected output may be read while it grows.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace zel::test {

class PipeProcess {
 public:
  using milliseconds = std::chrono::milliseconds;

  struct Options {
    // Extra environment entries ("NAME=value"), overriding inherited ones.
    std::vector<std::string> env;
    // Standard input from this file; empty means a pipe (WriteStdin).
    std::string stdinPath;
    // Runs the program as this user (and its group) when not negative: a
    // test running as root sees what a plain user is refused.
    int user = -1;
    int group = -1;
    // A tool of the build machine (a shell): started without the launcher,
    // which is for the programs of this build.
    bool hostTool = false;
  };

  // How a program that was run to its end ended.
  struct Result {
    int exitCode = -1;  // -1 unless it exited normally
    int signal = 0;     // the signal that ended it, 0 if none did
    std::string out;
    std::string err;
  };

  PipeProcess(std::vector<std::string> argv, Options options);
  ~PipeProcess();
  PipeProcess(const PipeProcess&) = delete;
  PipeProcess& operator=(const PipeProcess&) = delete;

  // Runs `argv` with `input` on a pipe (then closed) to its end.
  static Result Run(std::vector<std::string> argv, const std::string& input, Options options,
                    milliseconds timeout = std::chrono::seconds(30));

  pid_t Pid() const { return mPid; }
  // Writes to the standard input pipe; false if it is closed or fails.
  bool WriteStdin(const std::string& text);
  void CloseStdin();

  std::string Out() const;
  std::string Err() const;
  bool WaitForOut(const std::string& needle, milliseconds timeout = std::chrono::seconds(10)) const;
  bool WaitForErr(const std::string& needle, milliseconds timeout = std::chrono::seconds(10)) const;
  // Waits until standard output holds at least `count` newlines.
  bool WaitForOutLines(size_t count, milliseconds timeout = std::chrono::seconds(10)) const;

  void Signal(int signo);
  // Waits for the end and for the output the program left; its wait status,
  // std::nullopt on time-out.
  std::optional<int> WaitForExit(milliseconds timeout = std::chrono::seconds(20));
  // Waits for the end; the result, with exitCode -1 and signal 0 on time-out.
  Result Finish(milliseconds timeout = std::chrono::seconds(20));

 private:
  void Collect();
  bool Exited();
  void RedirectCoverageCounters(Options& options);

  // Where a run as another user writes the counters of a coverage build;
  // declared first so that it outlives the child.
  std::unique_ptr<TempDir> mCounterDir;
  pid_t mPid = -1;
  int mStdin = -1;
  int mOut = -1;
  int mErr = -1;
  int mStop[2] = {-1, -1};  // wakes the collecting thread to give up
  std::optional<int> mStatus;
  mutable std::mutex mMutex;  // guards mOutText, mErrText and mCollected
  std::string mOutText;
  std::string mErrText;
  bool mCollected = false;  // both pipes reached their end
  std::thread mCollector;
};

}  // namespace zel::test
