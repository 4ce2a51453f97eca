// Removes this process's socket files when SIGINT, SIGTERM or SIGHUP ends a
// one-shot command or a batch, then lets the signal end the process. Paths
// are registered on the main thread; the handler does async-signal-safe work.
#pragma once

#include <string>

namespace zel::ctl {

class SignalCleanup {
 public:
  // Installs the handler for each of the three signals that was not ignored
  // when the program started (a background job's SIGINT, nohup's SIGHUP).
  static void Install();
  // A socket file, or a directory (removed after the files), to remove
  // should a signal end the process. False when there is no room or the path
  // is too long; the path is then simply not cleaned up on a signal.
  static bool Add(const std::string& path, bool directory);
  static void Remove(const std::string& path);
};

}  // namespace zel::ctl
