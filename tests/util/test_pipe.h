// A pipe for the util tests: both ends closed on destruction unless taken.
// Used by one test thread; the monitor thread only reads the read end.
#pragma once

#include <string>

namespace zel::util::testkit {

class TestPipe {
 public:
  TestPipe();
  ~TestPipe();
  TestPipe(const TestPipe&) = delete;
  TestPipe& operator=(const TestPipe&) = delete;

  int ReadFd() const { return mFds[0]; }
  int WriteFd() const { return mFds[1]; }
  // Writes all of `bytes` to the write end; false on failure.
  bool Write(const std::string& bytes) const;
  // Reads what is there (non-blocking); empty when nothing is.
  std::string Drain() const;
  // Bytes waiting at the read end.
  int Pending() const;
  // Closes both ends now.
  void Close();
  // Forgets the read end without closing it (someone else closed it).
  void Release();

 private:
  int mFds[2];
};

}  // namespace zel::util::testkit
