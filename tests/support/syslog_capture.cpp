#include "tests/support/syslog_capture.h"

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace zel::test {
namespace {

struct Store {
  std::mutex mutex;  // guards records
  std::condition_variable changed;
  std::vector<LogRecord> records;
};

// Never destroyed: records may arrive from threads still running at exit.
Store& TheStore() {
  static Store* store = new Store;
  return *store;
}

std::atomic<bool> gEchoToStderr{false};

}  // namespace

std::vector<LogRecord> SyslogCapture::Records() {
  Store& store = TheStore();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.records;
}

void SyslogCapture::Clear() {
  Store& store = TheStore();
  std::lock_guard<std::mutex> lock(store.mutex);
  store.records.clear();
}

bool SyslogCapture::WaitFor(const Predicate& predicate, std::chrono::milliseconds timeout) {
  Store& store = TheStore();
  std::unique_lock<std::mutex> lock(store.mutex);
  return store.changed.wait_for(lock, timeout, [&] { return predicate(store.records); });
}

bool SyslogCapture::WaitForCount(size_t count, std::chrono::milliseconds timeout) {
  return WaitFor([count](const std::vector<LogRecord>& r) { return r.size() >= count; }, timeout);
}

bool SyslogCapture::WaitForRecord(const LogRecord& record, std::chrono::milliseconds timeout) {
  return WaitFor(
      [&record](const std::vector<LogRecord>& records) {
        for (const LogRecord& r : records) {
          if (r == record) return true;
        }
        return false;
      },
      timeout);
}

void SyslogCapture::EchoToStderr(bool on) { gEchoToStderr = on; }

void SyslogCapture::Append(int priority, std::string text) {
  if (gEchoToStderr) {
    const std::string line = "syslog[" + std::to_string(priority) + "]: " + text;
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
  }
  Store& store = TheStore();
  {
    std::lock_guard<std::mutex> lock(store.mutex);
    store.records.push_back(LogRecord{priority, std::move(text)});
  }
  store.changed.notify_all();
}

}  // namespace zel::test
