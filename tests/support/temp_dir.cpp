#include "tests/support/temp_dir.h"

#include <stdlib.h>

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

}  // namespace zel::test
