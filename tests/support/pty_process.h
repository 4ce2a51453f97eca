// Runs a program on a fresh pseudo-terminal, types keys into it and collects
// exactly the bytes it writes (on the terminal, or on a pipe in its place).
// Keys are typed only while the program waits for a key, as an operator would.
// If KDX_TEST_LAUNCHER is set (for example an emulator command line), its
// words are put before the program's. Owns the child: a child still running
// at destruction is killed and reaped. One thread at a time.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/pty.h"

namespace zel::test {

class PtyProcess {
 public:
  // What the program gets as standard input: the terminal, a file opened for
  // reading (such as /dev/null), a pipe whose writing end is already closed
  // (input that has ended), or no descriptor 0 at all.
  enum class Input { Terminal, File, EndedPipe, Closed };
  // What the program gets as standard output: the terminal, or a pipe that
  // this object reads, as when its output is piped into another program.
  enum class OutputSink { Terminal, Pipe };

  struct Options {
    // Extra environment entries ("NAME=value"), overriding inherited ones.
    std::vector<std::string> env;
    // Where standard error goes; empty means the terminal, like standard output.
    std::string stderrPath;
    // Runs in the child just before exec, e.g. to create files named after
    // the child's process id (which the program keeps across exec). The test
    // may have threads, so it may only make async-signal-safe calls.
    std::function<void()> inChild = nullptr;
    Input input = Input::Terminal;
    // The file that Input::File opens.
    std::string inputPath = std::string();
    OutputSink output = OutputSink::Terminal;
  };

  explicit PtyProcess(const std::vector<std::string>& argv);
  PtyProcess(const std::vector<std::string>& argv, Options options);
  ~PtyProcess();
  PtyProcess(const PtyProcess&) = delete;
  PtyProcess& operator=(const PtyProcess&) = delete;

  pid_t Pid() const { return mPid; }

  // Waits until the program reads keys, then sends all bytes in one write.
  bool Type(const std::string& keys, milliseconds timeout = std::chrono::seconds(10));
  // Sends bytes at once, without waiting for a key read: for programs that
  // read whole lines in canonical mode.
  void Send(const std::string& bytes) { mPty.Write(bytes); }
  // True while the terminal has line editing off (the program reads a key).
  bool ReadsKeyNow() const { return mPty.ReadsKeyNow(); }
  // The terminal's settings before the program started, and now.
  const struct termios& StartSettings() const { return mStartSettings; }
  struct termios Settings() const {
    return mPty.Settings();
  }
  // True when the terminal's settings are now those it had before the
  // program started (modes and control characters).
  bool SettingsAsAtStart() const;
  // Waits until the program waits for a key.
  bool WaitForKeyRead(milliseconds timeout = std::chrono::seconds(10));

  bool WaitForOutput(const std::string& needle, milliseconds timeout = std::chrono::seconds(10));
  bool WaitForOutputSize(size_t size, milliseconds timeout = std::chrono::seconds(10));
  bool WaitForQuiet(milliseconds quiet = milliseconds(200), milliseconds timeout = std::chrono::seconds(10));
  const std::string& Output() const { return mPty.Output(); }
  std::string TakeOutput() { return mPty.TakeOutput(); }

  // With OutputSink::Pipe: waits until the pipe has carried `needle`, taking
  // what the program has written so far and never waiting for its end.
  bool WaitForPipeOutput(const std::string& needle, milliseconds timeout = std::chrono::seconds(10));
  // Everything the pipe has carried so far: what the waits took, and what it
  // holds now (a prompt written since the last wait ended, say).
  const std::string& PipeOutput();

  void Signal(int signo);

  // Waits for the program to end and returns its wait status; also collects
  // the rest of its output. std::nullopt on time-out.
  std::optional<int> WaitForExit(milliseconds timeout = std::chrono::seconds(20));
  // Exit code (0..255) of a program that ended normally, -1 otherwise.
  static int ExitCode(int waitStatus);

 private:
  // Collects the wait status if the program has ended; never blocks.
  bool Reaped();
  void HangUpInACoverageBuild();
  // Takes what is in the output pipe now, without waiting.
  void ReadPipe();

  Pty mPty;
  int mOutPipe = -1;  // reading end of the output pipe, -1 without one
  std::string mPipeOutput;
  struct termios mStartSettings {};
  pid_t mPid = -1;
  std::optional<int> mStatus;
};

}  // namespace zel::test
