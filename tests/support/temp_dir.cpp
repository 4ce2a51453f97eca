#include "tests/support/temp_dir.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <vector>

namespace zel::test {

TempDir::TempDir() {
  std::string pattern = "/tmp/kdx-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  mPath = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(mPath, ignored);
}

std::string TempDir::File(const std::string& name) const { return mPath + "/" + name; }

bool PathExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

}  // namespace zel::test
