#include "cli/raw_mode_guard.h"

#include <unistd.h>

namespace zel::cli {

RawModeGuard::RawModeGuard() {
  mHaveSaved = ::tcgetattr(STDIN_FILENO, &mSaved) == 0;
  if (!mHaveSaved) return;
  // Only line editing and echo go: VMIN, VTIME, ISIG and output processing
  // keep the terminal's values, so Ctrl-C still raises SIGINT and "\n" is
  // still written as a line end.
  struct termios raw = mSaved;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

RawModeGuard::~RawModeGuard() {
  if (mHaveSaved) ::tcsetattr(STDIN_FILENO, TCSANOW, &mSaved);
}

}  // namespace zel::cli
