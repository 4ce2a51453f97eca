// Removes this process's socket files (and its own directory of them) when
// SIGINT, SIGTERM or SIGHUP ends a one-shot command or a batch, then lets the
// signal end the process as it would have. The handler only calls unlink,
// rmdir, signal and raise, which are async-signal-safe, on paths copied into
// fixed storage beforehand. Add and Remove run on the main thread with the
// signals blocked, so the handler never sees a half-written entry. The
// watch does not use this: it takes its signals through a descriptor.
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
