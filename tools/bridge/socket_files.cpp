#include "tools/bridge/socket_files.h"

#include <unistd.h>

#include <algorithm>

namespace zel::bridge {
namespace {

void Forget(std::vector<std::string>& paths, const std::string& path) {
  const auto entry = std::find(paths.begin(), paths.end(), path);
  if (entry != paths.end()) paths.erase(entry);
}

}  // namespace

void SocketFiles::Added(const std::string& path, bool directory) {
  std::lock_guard<std::mutex> lock(mMutex);
  (directory ? mDirectories : mFiles).push_back(path);
}

void SocketFiles::Removed(const std::string& path) {
  std::lock_guard<std::mutex> lock(mMutex);
  Forget(mFiles, path);
  Forget(mDirectories, path);
}

void SocketFiles::RemoveAll() {
  std::lock_guard<std::mutex> lock(mMutex);
  for (const std::string& path : mFiles) ::unlink(path.c_str());
  for (const std::string& path : mDirectories) ::rmdir(path.c_str());
  mFiles.clear();
  mDirectories.clear();
}

}  // namespace zel::bridge
