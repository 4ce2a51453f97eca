#include "tests/support/syslog_file.h"

#include <fstream>
#include <sstream>

#include "kdx_test_paths.h"
#include "tests/support/wait_until.h"

namespace zel::test {

std::vector<LogRecord> ReadSyslogFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  const std::string data = content.str();

  std::vector<LogRecord> records;
  size_t pos = 0;
  while (pos < data.size()) {
    const size_t eol = data.find('\n', pos);
    if (eol == std::string::npos) break;
    int priority = 0;
    size_t length = 0;
    if (std::sscanf(data.c_str() + pos, "%d %zu", &priority, &length) != 2) break;
    const size_t textStart = eol + 1;
    if (textStart + length + 1 > data.size()) break;  // record still being written
    records.push_back(LogRecord{priority, data.substr(textStart, length)});
    pos = textStart + length + 1;
  }
  return records;
}

bool WaitForSyslogFile(const std::string& path, const std::function<bool(const std::vector<LogRecord>&)>& predicate,
                       std::chrono::milliseconds timeout) {
  return WaitUntil([&] { return predicate(ReadSyslogFile(path)); }, timeout, std::chrono::milliseconds(2));
}

bool WaitForSyslogRecord(const std::string& path, const LogRecord& record, std::chrono::milliseconds timeout) {
  return WaitForSyslogFile(
      path,
      [&record](const std::vector<LogRecord>& records) {
        for (const LogRecord& r : records) {
          if (r == record) return true;
        }
        return false;
      },
      timeout);
}

bool HasSyslogRecordStarting(const std::string& path, const std::string& start) {
  for (const LogRecord& record : ReadSyslogFile(path)) {
    if (record.text.compare(0, start.size(), start) == 0) return true;
  }
  return false;
}

std::vector<std::string> SyslogCaptureEnv(const std::string& path) {
  return {std::string("LD_PRELOAD=") + KDX_SYSLOG_PRELOAD_PATH, "KDX_SYSLOG_FILE=" + path};
}

}  // namespace zel::test
