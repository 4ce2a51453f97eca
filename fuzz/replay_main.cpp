// Runs a fuzz target's entry function over files, without the fuzzing engine:
// every argument is a file or a directory of files (names starting with a dot
// are skipped), each file is one input. The normal test run uses this to
// replay the seed and regression inputs in every build. It reports on
// standard error, because some targets send standard output to /dev/null.
// Fails when no input was found at all, so that a mistyped directory cannot
// pass unnoticed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

// The files of a directory in name order, so that every run replays alike.
// (std::filesystem rather than readdir: a 32-bit build's readdir and stat
// fail on file systems with 64-bit inode numbers.)
std::vector<std::string> FilesIn(const std::string& dir) {
  std::vector<std::string> files;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    if (entry.path().filename().string()[0] == '.' || entry.is_directory()) continue;
    files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool Replay(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
  std::fprintf(stderr, "replay %s (%zu bytes)\n", path.c_str(), bytes.size());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::error_code error;
    const std::vector<std::string> files = fs::is_directory(arg, error) ? FilesIn(arg) : std::vector<std::string>{arg};
    for (const std::string& file : files) {
      if (!Replay(file)) {
        // NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return 1;
      }
      ++replayed;
    }
  }
  std::fprintf(stderr, "replayed %zu inputs\n", replayed);  // NOLINT(cert-err33-c): nowhere to report a failure
  return replayed > 0 ? 0 : 1;
}
