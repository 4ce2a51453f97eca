#include "tests/support/pty_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/support/launcher.h"
#include "tests/support/wait_until.h"

extern char** environ;

namespace zel::test {
namespace {

void SetEntry(std::vector<std::string>& env, const std::string& entry) {
  const std::string name = entry.substr(0, entry.find('=') + 1);
  for (std::string& existing : env) {
    if (existing.compare(0, name.size(), name) == 0) {
      existing = entry;
      return;
    }
  }
  env.push_back(entry);
}

std::string Lookup(const std::vector<std::string>& env, const std::string& name) {
  const std::string prefix = name + "=";
  for (const std::string& entry : env) {
    if (entry.compare(0, prefix.size(), prefix) == 0) return entry.substr(prefix.size());
  }
  return std::string();
}

// A preloaded library must reach the emulated program, not the emulator in
// front of it: that is a host program, and the loader refuses a target library
// in its LD_PRELOAD with an error on the terminal. The emulator sets the
// entries of QEMU_SET_ENV, a comma-separated list, for the program instead.
void SetForEmulatedProgram(std::vector<std::string>& env, const std::string& entry) {
  if (entry.find(',') != std::string::npos) {
    throw std::invalid_argument("a comma cannot pass through QEMU_SET_ENV: " + entry);
  }
  const std::string current = Lookup(env, "QEMU_SET_ENV");
  SetEntry(env, "QEMU_SET_ENV=" + current + (current.empty() ? "" : ",") + entry);
}

// The child's environment: ours, with the requested entries on top. The
// address sanitizer must accept a library loaded before its runtime.
std::vector<std::string> BuildEnv(const std::vector<std::string>& extra, bool launched) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string& entry : extra) {
    if (launched && entry.compare(0, 11, "LD_PRELOAD=") == 0) {
      SetForEmulatedProgram(env, entry);
    } else {
      SetEntry(env, entry);
    }
  }
  if (!Lookup(env, "LD_PRELOAD").empty() || !Lookup(env, "QEMU_SET_ENV").empty()) {
    std::string asan = Lookup(env, "ASAN_OPTIONS");
    SetEntry(env, "ASAN_OPTIONS=" + asan + (asan.empty() ? "" : ":") + "verify_asan_link_order=0");
  }
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

PtyProcess::PtyProcess(std::vector<std::string> argv) : PtyProcess(std::move(argv), Options()) {}

PtyProcess::PtyProcess(std::vector<std::string> argv, Options options) {
  std::vector<std::string> command = LauncherCommand();
  const bool launched = !command.empty();
  command.insert(command.end(), argv.begin(), argv.end());
  if (command.empty()) throw std::invalid_argument("PtyProcess needs a program");
  const std::string program = ResolveProgram(command[0]);
  std::vector<std::string> env = BuildEnv(options.env, launched);

  // Everything the child needs is prepared before fork: after it, the child
  // of a threaded test may only make async-signal-safe calls.
  std::vector<char*> args = Pointers(command);
  std::vector<char*> envp = Pointers(env);
  const int slave = mPty.OpenSlave();
  int errFd = -1;
  if (!options.stderrPath.empty()) {
    errFd = ::open(options.stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (errFd < 0) {
      ::close(slave);
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
    ::dup2(slave, STDIN_FILENO);
    ::dup2(slave, STDOUT_FILENO);
    ::dup2(errFd >= 0 ? errFd : slave, STDERR_FILENO);
    if (options.inChild) options.inChild();
    ::execve(program.c_str(), args.data(), envp.data());
    ::_exit(127);
  }
  ::close(slave);
  if (errFd >= 0) ::close(errFd);
}

PtyProcess::~PtyProcess() {
  if (mPid > 0 && !mStatus) {
    ::kill(mPid, SIGKILL);
    int status = 0;
    while (::waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
  }
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

void PtyProcess::Signal(int signo) {
  if (mPid > 0 && !mStatus) ::kill(mPid, signo);
}

std::optional<int> PtyProcess::WaitForExit(milliseconds timeout) {
  // Between checks the terminal is drained rather than slept on, so that the
  // program never blocks on output; that drain is the pause.
  const bool ended = WaitUntil(
      [this] {
        if (Reaped()) return true;
        mPty.WaitForQuiet(milliseconds(1), milliseconds(1));
        return false;
      },
      timeout, milliseconds(0));
  if (!ended) return std::nullopt;
  mPty.WaitForEnd(std::chrono::seconds(5));
  return mStatus;
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
