#include "tests/ipc/client_test_env.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include "ipc/client_handle.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"

namespace zel::test {

const char kSetLocalPathText[] =
    "bool zel::ipc::IPCClient::SetLocalPath(std::string, std::string, zel::ipc::IPCClient::EventCb)";
const char kSendFormatStringText[] = "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string)";
const char kEventServerCbText[] = "bool zel::ipc::IPCClient::EventServerCb(int, int, std::string, void*, size_t)";

ClientTest::ClientTest() : mService(mDir.File("service")) {
  mService.Script(zel::ipc::Ping, Answer::Reply("1\tPONG"));
  mService.Script(zel::ipc::RegisterEventPath, Answer::Reply("1"));
  mService.Script(zel::ipc::UnregisterEventPath, Answer::Reply("1"));
}

std::string ClientTest::SlotPath(const std::string& dir, int slot) {
  return dir + "/ipc_client-" + std::to_string(getpid()) + "-" + std::to_string(slot);
}

std::vector<std::string> ClientTest::RequestTexts() const {
  std::vector<std::string> texts;
  for (const FakeService::Request& request : mService.Requests()) texts.push_back(request.text);
  return texts;
}

zel::ipc::IPCClient::EventCb EventSink::Callback() {
  return [this](zel::ipc::IPCEvent& event) {
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(event);
    mChanged.notify_all();
  };
}

bool EventSink::WaitForCount(size_t count, milliseconds timeout) const {
  return WaitFor([count](const std::vector<zel::ipc::IPCEvent>& e) { return e.size() >= count; }, timeout);
}

bool EventSink::WaitFor(const std::function<bool(const std::vector<zel::ipc::IPCEvent>&)>& predicate,
                        milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return predicate(mEvents); });
}

std::vector<zel::ipc::IPCEvent> EventSink::Events() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mEvents;
}

zel::ipc::IPCClient::EventCb IgnoreEvents() {
  return [](zel::ipc::IPCEvent&) {};
}

namespace {

size_t EntryCount(const char* dir) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    (void)entry;
    ++count;
  }
  return count;
}

}  // namespace

size_t ThreadCount() { return EntryCount("/proc/self/task"); }

size_t DescriptorCount() { return EntryCount("/proc/self/fd"); }

size_t RegistrySize() {
  std::lock_guard<std::mutex> lock(zel::ipc::gClientRegistryMutex);
  return zel::ipc::gClientRegistry.size();
}

bool FileExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

void Touch(const std::string& path) { std::ofstream(path).put('x'); }

bool HasRecord(const LogRecord& record) {
  for (const LogRecord& r : SyslogCapture::Records()) {
    if (r == record) return true;
  }
  return false;
}

std::vector<LogRecord> RecordsStartingWith(const std::string& prefix) {
  std::vector<LogRecord> matching;
  for (const LogRecord& r : SyslogCapture::Records()) {
    if (r.text.compare(0, prefix.size(), prefix) == 0) matching.push_back(r);
  }
  return matching;
}

pid_t CurrentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool WaitUntilWaitingInSelect(pid_t tid) {
  // poll and select both sleep in the kernel's poll_schedule_timeout (an
  // emulated program's calls are made by the emulator's same thread).
  const std::string wchan = "/proc/self/task/" + std::to_string(tid) + "/wchan";
  return WaitUntil([&wchan] {
    std::string where;
    std::ifstream(wchan) >> where;
    return where.compare(0, 21, "poll_schedule_timeout") == 0;
  });
}

double SecondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace zel::test
