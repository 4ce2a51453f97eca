// Switches standard input to non-canonical, no-echo mode for the guard's
// lifetime (one key read) and puts the saved settings back when it ends.
// Used on the thread that reads keys; owns only the saved settings.
#pragma once

#include <termios.h>

namespace zel::cli {

class RawModeGuard {
 public:
  RawModeGuard();
  ~RawModeGuard();
  RawModeGuard(const RawModeGuard&) = delete;
  RawModeGuard& operator=(const RawModeGuard&) = delete;

 private:
  struct termios mSaved {};
  // False when standard input is no terminal: nothing to switch or restore.
  bool mHaveSaved = false;
};

}  // namespace zel::cli
