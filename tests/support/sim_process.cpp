#include "tests/support/sim_process.h"

#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "tests/support/syslog_file.h"
#include "tests/support/wait_until.h"

namespace zel::test {
namespace {

const char kRequestStart[] = "request [";
const char kFrom[] = "] from [";
const char kOutcome[] = "]: ";

}  // namespace

SimProcess::SimProcess(const std::string& program, const std::string& socketPath, const std::string& logPath,
                       const std::string& syslogPath, const std::vector<std::string>& options)
    : mSocketPath(socketPath), mLogPath(logPath) {
  std::vector<std::string> argv = {program, "--log", logPath, "--event-interval", "0"};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.push_back(socketPath);
  PtyProcess::Options processOptions;
  processOptions.env = SyslogCaptureEnv(syslogPath);
  mProcess = std::make_unique<PtyProcess>(argv, processOptions);
}

bool SimProcess::WaitUntilServing(std::chrono::milliseconds timeout) {
  return WaitForLine("serving on [" + mSocketPath + "]", timeout);
}

std::vector<std::string> SimProcess::LogLines() const { return ReadLines(mLogPath); }

std::vector<std::string> SimProcess::ReadLines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  std::string line;
  // A line without its newline is still being written.
  while (std::getline(in, line) && !in.eof()) lines.push_back(line);
  return lines;
}

std::vector<SimProcess::Request> SimProcess::Requests() const {
  std::vector<Request> requests;
  for (const std::string& line : LogLines()) {
    Request request;
    if (ParseRequest(line, request)) requests.push_back(request);
  }
  return requests;
}

bool SimProcess::WaitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  return WaitForLines(
      mLogPath,
      [count](const std::vector<std::string>& lines) {
        size_t requests = 0;
        Request request;
        for (const std::string& line : lines) requests += ParseRequest(line, request) ? 1 : 0;
        return requests >= count;
      },
      timeout);
}

bool SimProcess::WaitForLine(const std::string& line, std::chrono::milliseconds timeout) const {
  return WaitForLineIn(mLogPath, line, timeout);
}

bool SimProcess::WaitForLineIn(const std::string& path, const std::string& line, std::chrono::milliseconds timeout) {
  return WaitForLines(
      path,
      [&line](const std::vector<std::string>& lines) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
      },
      timeout);
}

bool SimProcess::WaitForLines(const std::string& path,
                              const std::function<bool(const std::vector<std::string>&)>& predicate,
                              std::chrono::milliseconds timeout) {
  return WaitUntil([&] { return predicate(ReadLines(path)); }, timeout, std::chrono::milliseconds(2));
}

std::optional<int> SimProcess::Stop(std::chrono::milliseconds timeout) {
  mProcess->Signal(SIGTERM);
  return mProcess->WaitForExit(timeout);
}

bool SimProcess::ParseRequest(const std::string& line, Request& request) {
  const size_t start = sizeof kRequestStart - 1;
  if (line.compare(0, start, kRequestStart) != 0) return false;
  const size_t from = line.find(kFrom, start);
  if (from == std::string::npos) return false;
  const size_t fromStart = from + sizeof kFrom - 1;
  const size_t outcome = line.find(kOutcome, fromStart);
  if (outcome == std::string::npos) return false;
  request.text = Unescape(line.substr(start, from - start));
  request.from = line.substr(fromStart, outcome - fromStart);
  request.outcome = line.substr(outcome + sizeof kOutcome - 1);
  return true;
}

std::string SimProcess::Unescape(const std::string& shown) {
  std::string bytes;
  for (size_t i = 0; i < shown.size(); ++i) {
    if (shown[i] != '\\' || i + 1 == shown.size()) {
      bytes += shown[i];
      continue;
    }
    const char code = shown[++i];
    if (code == 't') {
      bytes += '\t';
    } else if (code == 'n') {
      bytes += '\n';
    } else if (code == 'r') {
      bytes += '\r';
    } else if (code == 'x' && i + 2 < shown.size()) {
      bytes += static_cast<char>(std::strtoul(shown.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      bytes += code;
    }
  }
  return bytes;
}

}  // namespace zel::test
