// Reads the records that the preloadable capture library appended to its file
// during an end-to-end run. Stateless functions; the file may still be growing.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/log_record.h"

namespace zel::test {

// All complete records in the file (none if it does not exist yet).
std::vector<LogRecord> ReadSyslogFile(const std::string& path);

// Waits until the predicate holds for the file's records; false on time-out.
bool WaitForSyslogFile(const std::string& path, const std::function<bool(const std::vector<LogRecord>&)>& predicate,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Waits until a record equal to `record` is in the file.
bool WaitForSyslogRecord(const std::string& path, const LogRecord& record,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Whether the file holds a record whose text begins with `start`, now (for a
// program that has ended, every record it wrote).
bool HasSyslogRecordStarting(const std::string& path, const std::string& start);

// The environment entries that make a program started by PtyProcess log into
// `path` (the preload library, its file, and the sanitizer setting it needs).
std::vector<std::string> SyslogCaptureEnv(const std::string& path);

}  // namespace zel::test
