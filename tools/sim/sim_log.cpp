#include "tools/sim/sim_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace zel::sim {
namespace {

// Longer texts (an oversize reply) are shown by their start only.
constexpr size_t kShownLimit = 200;
constexpr size_t kShownStart = 64;

void AppendEscaped(std::string& out, unsigned char c) {
  switch (c) {
    case '\t':
      out += "\\t";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\\':
      out += "\\\\";
      return;
    default:
      break;
  }
  if (c < 0x20 || c >= 0x7f) {
    constexpr char kHexDigits[] = "0123456789abcdef";
    out += "\\x";
    out += kHexDigits[(c >> 4) & 0xf];
    out += kHexDigits[c & 0xf];
    return;
  }
  out += static_cast<char>(c);
}

}  // namespace

SimLog::SimLog() : mFd(STDOUT_FILENO), mOwnsFd(false) {}

SimLog::SimLog(const std::string& path)
    : mFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)), mOwnsFd(true) {}

SimLog::~SimLog() {
  if (mOwnsFd && mFd >= 0) ::close(mFd);
}

void SimLog::Line(const std::string& text) {
  const std::string line = text + "\n";
  std::lock_guard<std::mutex> lock(mMutex);
  size_t written = 0;
  // A terminal or a pipe may take a long line in parts.
  while (mFd >= 0 && written < line.size()) {
    const ssize_t n = ::write(mFd, line.data() + written, line.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    written += static_cast<size_t>(n);
  }
}

std::string SimLog::Shown(const std::string& bytes) {
  const bool cut = bytes.size() > kShownLimit;
  const size_t shownSize = cut ? kShownStart : bytes.size();
  std::string out;
  for (size_t i = 0; i < shownSize; ++i) AppendEscaped(out, static_cast<unsigned char>(bytes[i]));
  if (cut) out += "... (" + std::to_string(bytes.size()) + " bytes)";
  return out;
}

}  // namespace zel::sim
