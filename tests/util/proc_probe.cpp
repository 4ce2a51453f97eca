#include "tests/util/proc_probe.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/wait_until.h"

namespace zel::util::testkit {
namespace {

std::vector<std::string> DirEntries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (dirent* entry = readdir(d)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(d);
  return names;
}

}  // namespace

size_t ThreadCount() { return DirEntries("/proc/self/task").size(); }

void SettleRuntimeThreads() {
  std::atomic<pid_t> tid{0};
  std::thread([&tid] { tid = CurrentTid(); }).join();
  // A joined thread can stay listed for a moment (notably under emulation).
  ::zel::test::WaitUntil([&tid] { return !TaskExists(tid); });
}

bool TaskExists(pid_t tid) { return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0; }

std::vector<int> EventFds() {
  std::vector<int> fds;
  for (const std::string& name : DirEntries("/proc/self/fd")) {
    char target[256] = {};
    const std::string link = "/proc/self/fd/" + name;
    if (readlink(link.c_str(), target, sizeof(target) - 1) <= 0) continue;
    if (std::strcmp(target, "anon_inode:[eventfd]") == 0) fds.push_back(std::stoi(name));
  }
  return fds;
}

uint64_t EventFdCount(int fd) {
  std::ifstream in("/proc/self/fdinfo/" + std::to_string(fd));
  std::string line;
  while (std::getline(in, line)) {
    const std::string key = "eventfd-count:";
    if (line.compare(0, key.size(), key) == 0) return std::stoull(line.substr(key.size()), nullptr, 16);
  }
  return UINT64_MAX;
}

uint64_t CommandValue(const std::string& command) {
  uint64_t value = 0;
  std::memcpy(&value, command.data(), sizeof(value));
  return value;
}

namespace {

// The kernel function a thread sleeps in; select and poll both sleep in
// poll_schedule_timeout. Under an emulator the host's wait shows here too.
bool SleepsInPoll(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/wchan");
  std::string function;
  return static_cast<bool>(in >> function) && function.rfind("poll_schedule_timeout", 0) == 0;
}

}  // namespace

bool InSelect(pid_t tid) {
  if (SleepsInPoll(tid)) return true;
  // Kernels that hide wait channels still name the system call.
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
  long number = -1;
  if (!(in >> number)) return false;
#ifdef SYS_pselect6_time64
  if (number == SYS_pselect6_time64) return true;
#endif
#ifdef SYS__newselect
  if (number == SYS__newselect) return true;
#endif
#ifdef SYS_select
  if (number == SYS_select) return true;
#endif
#ifdef SYS_pselect6
  if (number == SYS_pselect6) return true;
#endif
  return false;
}

pid_t CurrentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

}  // namespace zel::util::testkit
