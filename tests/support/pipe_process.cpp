#include "tests/support/pipe_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
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

// How long the output of a program that has ended may take to drain; a
// grandchild that inherited the pipes can hold them open longer.
constexpr std::chrono::seconds kDrainTime(5);

void MakePipe(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
}

void CloseFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

PipeProcess::PipeProcess(std::vector<std::string> argv, Options options) {
  RedirectCoverageCounters(options);
  const bool launched = !options.hostTool && !LauncherCommand().empty();
  std::vector<std::string> command = options.hostTool ? argv : ChildCommand(argv);
  if (command.empty()) throw std::invalid_argument("PipeProcess needs a program");
  const std::string program = ResolveProgram(command[0]);
  std::vector<std::string> env = ChildEnv(options.env, launched);
  std::vector<char*> args = ExecPointers(command);
  std::vector<char*> envp = ExecPointers(env);

  int in[2] = {-1, -1};
  if (options.stdinPath.empty()) {
    MakePipe(in);
  } else {
    in[0] = ::open(options.stdinPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (in[0] < 0) throw std::runtime_error("cannot open " + options.stdinPath);
  }
  int out[2];
  int err[2];
  MakePipe(out);
  MakePipe(err);
  MakePipe(mStop);

  mPid = ::fork();
  if (mPid < 0) throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
  if (mPid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(in[0], STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(err[1], STDERR_FILENO);
    if (options.group >= 0 && ::setgid(static_cast<gid_t>(options.group)) != 0) ::_exit(126);
    if (options.user >= 0 && ::setuid(static_cast<uid_t>(options.user)) != 0) ::_exit(126);
    ::execve(program.c_str(), args.data(), envp.data());
    ::_exit(127);
  }
  ::close(in[0]);
  mStdin = in[1];
  ::close(out[1]);
  ::close(err[1]);
  mOut = out[0];
  mErr = err[0];
  mCollector = std::thread([this] { Collect(); });
}

// A program run as another user cannot write the counters of a coverage
// build into the build tree (gcov's runtime would complain on standard error,
// which the tests compare). Its counters go into a directory of its own,
// removed with this object; other builds ignore the variable.
void PipeProcess::RedirectCoverageCounters(Options& options) {
  if (options.user < 0) return;
  mCounterDir = std::make_unique<TempDir>();
  if (::chmod(mCounterDir->path().c_str(), 0777) != 0) {
    throw std::runtime_error("chmod " + mCounterDir->path() + ": " + std::strerror(errno));
  }
  options.env.push_back("GCOV_PREFIX=" + mCounterDir->path());
  // Every directory of the counters' paths is left out, so that gcov makes
  // none: one made under the program's own umask (kendrivex-ctl's keeps its
  // socket files to their owner) could not be entered to write into.
  options.env.push_back("GCOV_PREFIX_STRIP=64");
}

PipeProcess::~PipeProcess() {
  if (mPid > 0 && !mStatus) {
    ::kill(mPid, SIGKILL);
    int status = 0;
    while (::waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  CloseStdin();
  const char stop = 's';
  ssize_t ignored = ::write(mStop[1], &stop, 1);
  (void)ignored;
  mCollector.join();
  CloseFd(mOut);
  CloseFd(mErr);
  CloseFd(mStop[0]);
  CloseFd(mStop[1]);
}

PipeProcess::Result PipeProcess::Run(std::vector<std::string> argv, const std::string& input, Options options,
                                     milliseconds timeout) {
  PipeProcess process(std::move(argv), std::move(options));
  if (!input.empty()) process.WriteStdin(input);
  process.CloseStdin();
  return process.Finish(timeout);
}

bool PipeProcess::WriteStdin(const std::string& text) {
  size_t done = 0;
  while (mStdin >= 0 && done < text.size()) {
    const ssize_t written = ::write(mStdin, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    done += static_cast<size_t>(written);
  }
  return mStdin >= 0;
}

void PipeProcess::CloseStdin() { CloseFd(mStdin); }

std::string PipeProcess::Out() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mOutText;
}

std::string PipeProcess::Err() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mErrText;
}

bool PipeProcess::WaitForOut(const std::string& needle, milliseconds timeout) const {
  return WaitUntil([&] { return Out().find(needle) != std::string::npos; }, timeout);
}

bool PipeProcess::WaitForErr(const std::string& needle, milliseconds timeout) const {
  return WaitUntil([&] { return Err().find(needle) != std::string::npos; }, timeout);
}

bool PipeProcess::WaitForOutLines(size_t count, milliseconds timeout) const {
  return WaitUntil(
      [&] {
        const std::string out = Out();
        return static_cast<size_t>(std::count(out.begin(), out.end(), '\n')) >= count;
      },
      timeout);
}

void PipeProcess::Signal(int signo) {
  if (mPid > 0 && !mStatus) ::kill(mPid, signo);
}

bool PipeProcess::Exited() {
  if (mStatus) return true;
  int status = 0;
  if (::waitpid(mPid, &status, WNOHANG) != mPid) return false;
  mStatus = status;
  return true;
}

std::optional<int> PipeProcess::WaitForExit(milliseconds timeout) {
  if (!WaitUntil([this] { return Exited(); }, timeout)) return std::nullopt;
  WaitUntil(
      [this] {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCollected;
      },
      kDrainTime);
  return mStatus;
}

PipeProcess::Result PipeProcess::Finish(milliseconds timeout) {
  Result result;
  const std::optional<int> status = WaitForExit(timeout);
  if (status) {
    result.exitCode = WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    result.signal = WIFSIGNALED(*status) ? WTERMSIG(*status) : 0;
  }
  result.out = Out();
  result.err = Err();
  return result;
}

void PipeProcess::Collect() {
  pollfd fds[3] = {
      {mOut,     POLLIN, 0},
      {mErr,     POLLIN, 0},
      {mStop[0], POLLIN, 0}
  };
  std::string* texts[2] = {&mOutText, &mErrText};
  size_t open = 2;
  char buffer[4096];
  while (open > 0) {
    if (::poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[2].revents != 0) return;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t length = ::read(fds[i].fd, buffer, sizeof buffer);
      if (length > 0) {
        std::lock_guard<std::mutex> lock(mMutex);
        texts[i]->append(buffer, static_cast<size_t>(length));
      } else if (length == 0 || errno != EINTR) {
        fds[i].fd = -1;
        --open;
      }
    }
  }
  std::lock_guard<std::mutex> lock(mMutex);
  mCollected = true;
}

}  // namespace zel::test
