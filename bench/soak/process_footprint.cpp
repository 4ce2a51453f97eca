#include "bench/soak/process_footprint.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace zel::bench {
namespace {

// Entries of a /proc directory. The descriptor that reads the directory is
// counted too, alike at every reading.
size_t EntriesOf(const char* dir) {
  std::error_code error;
  size_t count = 0;
  for (std::filesystem::directory_iterator entry(dir, error), end; !error && entry != end; entry.increment(error)) {
    ++count;
  }
  return count;
}

size_t ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 6, "VmRSS:") == 0) return std::strtoul(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

}  // namespace

ProcessFootprint ProcessFootprint::Now() {
  ProcessFootprint now;
  now.rssKiB = ResidentKiB();
  now.descriptors = EntriesOf("/proc/self/fd");
  now.threads = EntriesOf("/proc/self/task");
  return now;
}

std::string ProcessFootprint::Text() const {
  return "RSS " + std::to_string(rssKiB) + " KiB, " + std::to_string(descriptors) + " descriptors, " +
         std::to_string(threads) + " threads";
}

}  // namespace zel::bench
