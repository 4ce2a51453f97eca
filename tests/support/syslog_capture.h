// In-memory capture of every syslog record that a test executable emits. The
// test executables interpose syslog, vsyslog and their _chk forms; records
// from any thread land here under one lock. The store is process-wide and is
// emptied before each test by the shared test main.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "tests/support/log_record.h"

namespace zel::test {

class SyslogCapture {
 public:
  using Predicate = std::function<bool(const std::vector<LogRecord>&)>;

  static std::vector<LogRecord> Records();
  static void Clear();

  // Waits until the predicate holds for the records so far; false on time-out.
  static bool WaitFor(const Predicate& predicate, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  static bool WaitForCount(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Waits for a record equal to `record`.
  static bool WaitForRecord(const LogRecord& record, std::chrono::milliseconds timeout = std::chrono::seconds(10));

  // Also copies each record to standard error as "syslog[<priority>]: <text>";
  // death tests use it to see the records of the process that dies.
  static void EchoToStderr(bool on);

  static void Append(int priority, std::string text);
};

}  // namespace zel::test
