#include "tests/util/test_pipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace zel::util::testkit {

TestPipe::TestPipe() {
  if (pipe(mFds) != 0) std::abort();
}

TestPipe::~TestPipe() { Close(); }

bool TestPipe::Write(const std::string& bytes) const {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(mFds[1], bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string TestPipe::Drain() const {
  std::string out;
  const int count = Pending();
  if (count <= 0) return out;
  out.resize(static_cast<size_t>(count));
  const ssize_t n = read(mFds[0], &out[0], out.size());
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

int TestPipe::Pending() const {
  int count = 0;
  if (ioctl(mFds[0], FIONREAD, &count) != 0) return -1;
  return count;
}

void TestPipe::Release() { mFds[0] = -1; }

void TestPipe::Close() {
  for (int& fd : mFds) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

}  // namespace zel::util::testkit
