// Runs the device-service simulator as a real program on its own pseudo-
// terminal, with its per-request lines appended to a log file that this object
// reads back, so that tests see every request the service received. Owns the
// process: one still running at destruction is killed and reaped. One thread
// at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/pty_process.h"

namespace zel::test {

class SimProcess {
 public:
  // One "request [<text>] from [<sender>]: <outcome>" line, with the text
  // turned back into the bytes that arrived.
  struct Request {
    std::string text;
    std::string from;
    std::string outcome;
  };

  // Starts `program` serving at `socketPath`, logging to `logPath` and with
  // its system log captured in `syslogPath`. It pushes no events unless
  // `options` (passed before the socket path) ask for them.
  SimProcess(const std::string& program, const std::string& socketPath, const std::string& logPath,
             const std::string& syslogPath, const std::vector<std::string>& options = {});

  // Waits for the "serving on" line; false if it does not come.
  bool WaitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(10));

  std::vector<std::string> LogLines() const;
  std::vector<Request> Requests() const;
  // Waits until the log holds at least `count` request lines.
  bool WaitForRequests(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  // Waits until the log holds a line equal to `line`.
  bool WaitForLine(const std::string& line, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

  // Sends SIGTERM and waits for the end; the wait status, nullopt on time-out.
  std::optional<int> Stop(std::chrono::milliseconds timeout = std::chrono::seconds(10));

  PtyProcess& Process() { return *mProcess; }

  // The bytes behind the simulator's shown form of a text (\t, \n, \r, \\,
  // \xNN).
  static std::string Unescape(const std::string& shown);
  // Reads a request line; false for other lines.
  static bool ParseRequest(const std::string& line, Request& request);
  // The complete lines of a simulator log file (none if it does not exist).
  static std::vector<std::string> ReadLines(const std::string& path);
  // Waits until the file holds a line equal to `line`.
  static bool WaitForLineIn(const std::string& path, const std::string& line,
                            std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Waits until the predicate holds for the file's lines; false on time-out.
  static bool WaitForLines(const std::string& path,
                           const std::function<bool(const std::vector<std::string>&)>& predicate,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  std::string mSocketPath;
  std::string mLogPath;
  std::unique_ptr<PtyProcess> mProcess;
};

}  // namespace zel::test
