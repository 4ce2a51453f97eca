#include "tools/bridge/socket_files.h"

#include <unistd.h>

#include <algorithm>

namespace zel::bridge {

void SocketFiles::Added(const std::string& path, bool directory) {
  std::lock_guard<std::mutex> lock(mMutex);
  mEntries.push_back(Entry{path, directory});
}

void SocketFiles::Removed(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  mEntries.erase(std::remove_if(mEntries.begin(), mEntries.end(), [&](const Entry& e) { return e.path == path; }),
                 mEntries.end());
}

void SocketFiles::RemoveAll() {
  std::lock_guard<std::mutex> lock(mMutex);
  for (const Entry& entry : mEntries) {
    if (!entry.directory) ::unlink(entry.path.c_str());
  }
  for (const Entry& entry : mEntries) {
    if (entry.directory) ::rmdir(entry.path.c_str());
  }
  mEntries.clear();
}

}  // namespace zel::bridge
