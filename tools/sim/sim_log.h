// The simulator's one-line-per-request report, on standard output or appended
// to a file. Lines from any thread are written whole, one write each, under a
// lock. Owns the file descriptor when it opened a file.
#pragma once

#include <mutex>
#include <string>

namespace zel::sim {

class SimLog {
 public:
  // Standard output.
  SimLog();
  // Appends to `path`, creating it; Ok() tells whether it could be opened.
  explicit SimLog(const std::string& path);
  ~SimLog();
  SimLog(const SimLog&) = delete;
  SimLog& operator=(const SimLog&) = delete;

  bool Ok() const { return mFd >= 0; }
  // Writes `text` and a newline.
  void Line(const std::string& text);

  // A line's bytes made readable in one line: tab, newline, carriage return
  // and backslash as \t \n \r \\, other control and non-ASCII bytes as \xNN;
  // texts longer than 200 bytes are cut, with their length noted.
  static std::string Shown(const std::string& bytes);

 private:
  std::mutex mMutex;  // keeps lines from different threads whole and in order
  int mFd;
  bool mOwnsFd;
};

}  // namespace zel::sim
