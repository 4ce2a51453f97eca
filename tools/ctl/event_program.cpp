#include "tools/ctl/event_program.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

extern char** environ;

namespace zel::ctl {
namespace {

// Frees posix_spawn's attributes however Start returns.
class SpawnAttributes {
 public:
  SpawnAttributes() { mOk = posix_spawnattr_init(&mAttributes) == 0; }
  ~SpawnAttributes() {
    if (mOk) posix_spawnattr_destroy(&mAttributes);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  // No signal blocked, and the ones the watch ignores or takes through its
  // descriptor back at their default action.
  bool Reset() {
    if (!mOk) return false;
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signo : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&defaults, signo);
    return posix_spawnattr_setsigmask(&mAttributes, &none) == 0 &&
           posix_spawnattr_setsigdefault(&mAttributes, &defaults) == 0 &&
           posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
  }
  const posix_spawnattr_t* Get() const { return &mAttributes; }

 private:
  posix_spawnattr_t mAttributes;
  bool mOk = false;
};

// Whether execvp would find an executable `program`: a path with a slash as it
// is, a bare name on PATH. Checked before spawning so that a program that
// cannot start is reported the same way everywhere (an emulator may fork
// where posix_spawn would report the failed exec).
bool Executable(const std::string& program) {
  if (program.find('/') != std::string::npos) return ::access(program.c_str(), X_OK) == 0;
  const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): nothing here changes the environment
  std::string dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = end > start ? dirs.substr(start, end - start) : ".";
    candidate.append("/").append(program);
    if (::access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

std::string HowItEnded(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "ended with wait status " + std::to_string(status);
}

}  // namespace

bool EventProgram::Start(const zel::ipc::IPCEvent& event, Failure& failure) {
  std::vector<std::string> words = {mProgram, std::to_string(event.id)};
  words.insert(words.end(), event.args.begin(), event.args.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  if (!Executable(mProgram)) {
    failure = Fail(kStatusLocal, mProgram, "cannot start: no such executable program");
    return false;
  }
  SpawnAttributes attributes;
  if (!attributes.Reset()) {
    failure = Fail(kStatusLocal, mProgram, "cannot start: spawn attributes failed");
    return false;
  }
  // posix_spawnp reports a program that cannot be executed in its result.
  const int error = posix_spawnp(&mPid, mProgram.c_str(), nullptr, attributes.Get(), argv.data(), environ);
  if (error != 0) {
    mPid = -1;
    failure = Fail(kStatusLocal, mProgram, "cannot start: " + ErrorText(error));
    return false;
  }
  return true;
}

bool EventProgram::Reap(Failure& failure) {
  if (mPid <= 0) return true;
  int status = 0;
  pid_t done = 0;
  do {
    done = ::waitpid(mPid, &status, WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done == 0) return false;
  mPid = -1;
  failure = Failure();
  if (done > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  failure = Fail(kStatusRefused, mProgram, done > 0 ? HowItEnded(status) : ErrorText(errno));
  return true;
}

}  // namespace zel::ctl
