// A fresh, uniquely named directory for one test, removed with everything in
// it on destruction. Names stay short: Unix socket paths must fit 108 bytes.
#pragma once

#include <string>

namespace zel::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }
  // path() + "/" + name
  std::string File(const std::string& name) const;

 private:
  std::string mPath;
};

// True when anything (a file, a socket, a directory, a link) is at `path`.
bool PathExists(const std::string& path);

}  // namespace zel::test
