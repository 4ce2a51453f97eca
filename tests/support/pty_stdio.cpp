#include "tests/support/pty_stdio.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>

namespace zel::test {
namespace {

std::atomic<bool> gActive{false};

// A byte sequence that the code under test never writes.
const char kMarker[] = "\x01<pty-stdio-marker>\x01";

}  // namespace

PtyStdio::PtyStdio() {
  std::fflush(stdout);
  mSlave = mPty.OpenSlave();
  mSavedIn = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  mSavedOut = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (mSavedIn < 0 || mSavedOut < 0) throw std::runtime_error("cannot save standard descriptors");
  ::dup2(mSlave, STDIN_FILENO);
  ::dup2(mSlave, STDOUT_FILENO);
  gActive = true;
}

PtyStdio::~PtyStdio() {
  std::fflush(stdout);
  ::dup2(mSavedIn, STDIN_FILENO);
  ::dup2(mSavedOut, STDOUT_FILENO);
  ::close(mSavedIn);
  ::close(mSavedOut);
  if (mSlave >= 0) ::close(mSlave);
  gActive = false;
}

std::string PtyStdio::TakeWritten(milliseconds timeout) {
  std::fflush(stdout);
  const std::string marker(kMarker);
  // Through the same descriptor and line discipline as the code under test.
  if (::write(STDOUT_FILENO, marker.data(), marker.size()) != static_cast<ssize_t>(marker.size())) {
    throw std::runtime_error("cannot write the output marker");
  }
  if (!mPty.WaitForOutput(marker, timeout)) {
    throw std::runtime_error("output marker did not come back");
  }
  std::string all = mPty.TakeOutput();
  const size_t at = all.find(marker);
  std::string rest = all.substr(at + marker.size());
  all.erase(at);
  if (!rest.empty()) throw std::runtime_error("output after the marker");
  return all;
}

void PtyStdio::CloseInput() {
  const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::dup2(devNull, STDIN_FILENO);
  ::close(devNull);
}

bool PtyStdio::Active() { return gActive; }

}  // namespace zel::test
