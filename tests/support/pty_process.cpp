#include "tests/support/pty_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/support/child_env.h"
#include "tests/support/launcher.h"
#include "tests/support/wait_until.h"

namespace zel::test {
namespace {

// The descriptor that becomes the child's standard input; -1 for the
// terminal and for none.
int OpenInput(const PtyProcess::Options& options) {
  using Input = PtyProcess::Input;
  if (options.input == Input::File) {
    const int fd = ::open(options.inputPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot open " + options.inputPath);
    return fd;
  }
  if (options.input == Input::EndedPipe) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    ::close(fds[1]);
    return fds[0];
  }
  return -1;
}

// In the child: puts the chosen standard input in place.
void SetUpChildInput(PtyProcess::Input input, int slave, int inputFd) {
  if (input == PtyProcess::Input::Terminal) {
    ::dup2(slave, STDIN_FILENO);
  } else if (inputFd >= 0) {
    ::dup2(inputFd, STDIN_FILENO);
  } else {
    ::close(STDIN_FILENO);
  }
}

// The pipe that becomes the child's standard output, its reading end
// non-blocking; both ends -1 for the terminal.
void OpenOutputPipe(PtyProcess::OutputSink output, int fds[2]) {
  fds[0] = fds[1] = -1;
  if (output != PtyProcess::OutputSink::Pipe) return;
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
}

}  // namespace

PtyProcess::PtyProcess(const std::vector<std::string>& argv) : PtyProcess(argv, Options()) {}

PtyProcess::PtyProcess(const std::vector<std::string>& argv, Options options) {
  const bool launched = !LauncherCommand().empty();
  std::vector<std::string> command = ChildCommand(argv);
  const std::string program = ResolveProgram(command[0]);
  std::vector<std::string> env = ChildEnv(options.env, launched);

  // Everything the child needs is prepared before fork: after it, the child
  // of a threaded test may only make async-signal-safe calls.
  std::vector<char*> args = ExecPointers(command);
  std::vector<char*> envp = ExecPointers(env);
  mStartSettings = mPty.Settings();
  const int inputFd = OpenInput(options);
  int outPipe[2];
  OpenOutputPipe(options.output, outPipe);
  const int slave = mPty.OpenSlave();
  int errFd = -1;
  if (!options.stderrPath.empty()) {
    errFd = ::open(options.stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (errFd < 0) {
      ::close(slave);
      if (inputFd >= 0) ::close(inputFd);
      for (int fd : outPipe) {
        if (fd >= 0) ::close(fd);
      }
      throw std::runtime_error("cannot open " + options.stderrPath);
    }
  }

  mPid = ::fork();
  if (mPid < 0) throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
  if (mPid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::setsid();
    ::ioctl(slave, TIOCSCTTY, 0);
    SetUpChildInput(options.input, slave, inputFd);
    ::dup2(outPipe[1] >= 0 ? outPipe[1] : slave, STDOUT_FILENO);
    ::dup2(errFd >= 0 ? errFd : slave, STDERR_FILENO);
    if (options.inChild) options.inChild();
    ::execve(program.c_str(), args.data(), envp.data());
    ::_exit(127);
  }
  ::close(slave);
  if (inputFd >= 0) ::close(inputFd);
  if (errFd >= 0) ::close(errFd);
  if (outPipe[1] >= 0) ::close(outPipe[1]);
  mOutPipe = outPipe[0];
}

PtyProcess::~PtyProcess() {
  if (mPid > 0 && !mStatus) HangUpInACoverageBuild();
  if (mPid > 0 && !mStatus) {
    ::kill(mPid, SIGKILL);
    int status = 0;
    while (::waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (mOutPipe >= 0) ::close(mOutPipe);
}

// A program killed outright never writes a coverage build's counters, and
// most tests end the client that way once they have seen what they check. In
// a coverage build it is hung up first, which the client takes as the end of
// the session, and killed only if it has not ended after a while.
void PtyProcess::HangUpInACoverageBuild() {
#ifdef KDX_COVERAGE_BUILD
  ::kill(mPid, SIGHUP);
  WaitForExit(std::chrono::seconds(10));
#endif
}

bool PtyProcess::Type(const std::string& keys, milliseconds timeout) {
  if (!mPty.WaitForKeyRead(timeout)) return false;
  mPty.Write(keys);
  return true;
}

bool PtyProcess::WaitForKeyRead(milliseconds timeout) { return mPty.WaitForKeyRead(timeout); }

bool PtyProcess::WaitForOutput(const std::string& needle, milliseconds timeout) {
  return mPty.WaitForOutput(needle, timeout);
}

bool PtyProcess::WaitForOutputSize(size_t size, milliseconds timeout) { return mPty.WaitForOutputSize(size, timeout); }

bool PtyProcess::WaitForQuiet(milliseconds quiet, milliseconds timeout) { return mPty.WaitForQuiet(quiet, timeout); }

bool PtyProcess::WaitForPipeOutput(const std::string& needle, milliseconds timeout) {
  return WaitUntil(
      [this, &needle] {
        ReadPipe();
        return mPipeOutput.find(needle) != std::string::npos;
      },
      timeout);
}

const std::string& PtyProcess::PipeOutput() {
  ReadPipe();
  return mPipeOutput;
}

void PtyProcess::ReadPipe() {
  if (mOutPipe < 0) return;
  char buffer[4096];
  ssize_t count = 0;
  while ((count = ::read(mOutPipe, buffer, sizeof buffer)) > 0) mPipeOutput.append(buffer, static_cast<size_t>(count));
}

void PtyProcess::Signal(int signo) {
  if (mPid > 0 && !mStatus) ::kill(mPid, signo);
}

std::optional<int> PtyProcess::WaitForExit(milliseconds timeout) {
  // Between checks the terminal is drained rather than slept on, so that the
  // program never blocks on output; that drain is the pause.
  const bool ended = WaitUntil(
      [this] {
        if (Reaped()) return true;
        ReadPipe();
        mPty.WaitForQuiet(milliseconds(1), milliseconds(1));
        return false;
      },
      timeout, milliseconds(0));
  if (!ended) return std::nullopt;
  mPty.WaitForEnd(std::chrono::seconds(5));
  // The program has ended: all it wrote to the pipe is there to be taken.
  ReadPipe();
  return mStatus;
}

bool PtyProcess::SettingsAsAtStart() const {
  const struct termios now = Settings();
  const struct termios& start = mStartSettings;
  return now.c_iflag == start.c_iflag && now.c_oflag == start.c_oflag && now.c_cflag == start.c_cflag &&
         now.c_lflag == start.c_lflag && std::equal(now.c_cc, now.c_cc + NCCS, start.c_cc);
}

bool PtyProcess::Reaped() {
  if (mStatus) return true;
  int status = 0;
  if (::waitpid(mPid, &status, WNOHANG) != mPid) return false;
  mStatus = status;
  return true;
}

int PtyProcess::ExitCode(int waitStatus) { return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1; }

}  // namespace zel::test
