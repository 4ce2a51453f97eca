#include "tests/support/pty.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace zel::test {
namespace {

using Clock = std::chrono::steady_clock;

milliseconds Remaining(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? left : milliseconds(0);
}

// The terminal settings every test starts from: the system's defaults for a
// new terminal, without echo and without the canonical-mode editing keys.
void ConfigureSlave(int slave) {
  struct termios settings;
  if (tcgetattr(slave, &settings) != 0) throw std::runtime_error("tcgetattr on pty failed");
  settings.c_lflag &= ~(ECHO | ECHOE | ECHOK | ECHONL);
  for (int index : {VERASE, VKILL, VWERASE, VREPRINT, VLNEXT, VEOF, VEOL, VEOL2, VDISCARD}) {
    settings.c_cc[index] = _POSIX_VDISABLE;
  }
  if (tcsetattr(slave, TCSANOW, &settings) != 0) throw std::runtime_error("tcsetattr on pty failed");
  struct winsize size = {};
  size.ws_row = 24;
  size.ws_col = 80;
  ioctl(slave, TIOCSWINSZ, &size);
}

}  // namespace

Pty::Pty() {
  mMaster = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (mMaster < 0 || grantpt(mMaster) != 0 || unlockpt(mMaster) != 0) {
    throw std::runtime_error(std::string("cannot open a pseudo-terminal: ") + std::strerror(errno));
  }
  mSlaveName = ptsname(mMaster);
  const int slave = OpenSlave();
  ConfigureSlave(slave);
  ::close(slave);
}

Pty::~Pty() {
  if (mMaster >= 0) ::close(mMaster);
}

int Pty::OpenSlave() const {
  const int fd = ::open(mSlaveName.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + mSlaveName + ": " + std::strerror(errno));
  return fd;
}

bool Pty::ReadsKeyNow() const {
  // On Linux the master reports the slave's settings.
  struct termios settings;
  if (tcgetattr(mMaster, &settings) != 0) return false;
  return (settings.c_lflag & ICANON) == 0;
}

struct termios Pty::Settings() const {
  struct termios settings;
  if (tcgetattr(mMaster, &settings) != 0) throw std::runtime_error("tcgetattr on pty failed");
  return settings;
}

bool Pty::WaitForKeyRead(milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!ReadsKeyNow()) {
    if (Clock::now() >= deadline || mEnded) return false;
    // The program gives no signal when it switches modes; look again shortly.
    Pump(milliseconds(1));
  }
  return true;
}

void Pty::Write(const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(mMaster, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error(std::string("write to pty failed: ") + std::strerror(errno));
    done += static_cast<size_t>(n);
  }
}

bool Pty::Pump(milliseconds wait) {
  if (mEnded) return false;
  struct pollfd pfd = {mMaster, POLLIN, 0};
  const int ready = ::poll(&pfd, 1, static_cast<int>(wait.count()));
  if (ready <= 0) return false;
  char buffer[4096];
  const ssize_t n = ::read(mMaster, buffer, sizeof buffer);
  if (n > 0) {
    mOutput.append(buffer, static_cast<size_t>(n));
    return true;
  }
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return false;
  mEnded = true;  // EIO: every slave descriptor is closed
  return false;
}

bool Pty::WaitForOutput(const std::string& needle, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (mOutput.find(needle) == std::string::npos) {
    if (Clock::now() >= deadline || mEnded) return false;
    Pump(Remaining(deadline));
  }
  return true;
}

bool Pty::WaitForOutputSize(size_t size, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (mOutput.size() < size) {
    if (Clock::now() >= deadline || mEnded) return false;
    Pump(Remaining(deadline));
  }
  return true;
}

bool Pty::WaitForQuiet(milliseconds quiet, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (Clock::now() < deadline) {
    if (!Pump(std::min(quiet, Remaining(deadline)))) return true;
  }
  return false;
}

bool Pty::WaitForEnd(milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!mEnded) {
    if (Clock::now() >= deadline) return false;
    Pump(Remaining(deadline));
  }
  return true;
}

std::string Pty::TakeOutput() {
  std::string taken;
  taken.swap(mOutput);
  return taken;
}

}  // namespace zel::test
