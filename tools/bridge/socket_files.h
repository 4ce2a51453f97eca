// The socket files the command worker's runner has made and not yet removed,
// so that a stop that cannot wait for a command stuck at the service removes
// them itself. Told by the runner on the worker's thread; read by the main
// thread.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tools/service_client/runner.h"

namespace zel::bridge {

class SocketFiles : public zel::service_client::FileObserver {
 public:
  void Added(const std::string& path, bool directory) override;
  void Removed(const std::string& path) override;
  // Removes every file, then every directory, still listed.
  void RemoveAll();

 private:
  struct Entry {
    std::string path;
    bool directory;
  };

  std::mutex mMutex;  // guards mEntries
  std::vector<Entry> mEntries;
};

}  // namespace zel::bridge
