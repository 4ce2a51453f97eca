// Throughput of the console's key decoding and of the line editor, with
// standard output on /dev/null while a benchmark runs.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "benchmark/benchmark.h"
#include "cli/cmd_line_interface.h"
#include "cli/console.h"
#include "tests/cli/cli_test_access.h"
#include "tests/support/redirect.h"

namespace zel::cli {
namespace {

using Access = CmdLineInterfaceTestAccess;
using ::zel::test::Redirect;
using KeyType = Console::KeyType;

// A descriptor closed at the end of the scope.
class Fd {
 public:
  explicit Fd(int fd) : mFd(fd) {
    if (fd < 0) throw std::runtime_error("cannot open a descriptor");
  }
  ~Fd() { ::close(mFd); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return mFd; }

 private:
  int mFd;
};

struct Pipe {
  Pipe() {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    read = fds[0];
    write = fds[1];
  }
  ~Pipe() {
    ::close(read);
    ::close(write);
  }
  int read = -1;
  int write = -1;
};

void Send(int fd, const std::string& bytes) {
  if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("short write");
  }
}

// The bytes each decoding benchmark cycles through, 64 of them so that the
// next index is a mask: the loop around the decoder is then a few
// branch-free instructions.
constexpr size_t kCycle = 64;

std::string Cycle(const std::string& bytes) {
  std::string cycle;
  while (cycle.size() < kCycle) cycle += bytes;
  return cycle.substr(0, kCycle);
}

void DecodeCycle(benchmark::State& state, const std::string& bytes) {
  Console console;
  Console::KeyInfo info{0, KeyType::Unknown};
  const std::string cycle = Cycle(bytes);
  // Called through a pointer the compiler cannot follow, so that the decoder
  // runs as the program has it, out of line, in every build: link-time
  // optimisation would otherwise inline it into this loop.
  auto decode = &Console::GetKeyInfoFromChar;
  benchmark::DoNotOptimize(decode);
  size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    (console.*decode)(cycle[i], &info);
    benchmark::DoNotOptimize(info);
    i = (i + 1) & (kCycle - 1);
  }
  state.SetItemsProcessed(state.iterations());
}

std::string PrintableBytes() {
  std::string bytes;
  for (char c = 32; c <= 126; ++c) bytes += c;
  return bytes;
}

void BM_DecodePrintableByte(benchmark::State& state) { DecodeCycle(state, PrintableBytes()); }
BENCHMARK(BM_DecodePrintableByte);

void BM_DecodeControlByte(benchmark::State& state) { DecodeCycle(state, std::string{2, 6, 8, 9, 10, 13, 14, 16, 127}); }
BENCHMARK(BM_DecodeControlByte);

// Escape sequences read through a pipe: the decoding and one read per byte,
// without the terminal mode switch.
void BM_DecodeEscapeSequencesFromPipe(benchmark::State& state) {
  const std::string batch = "\x1b[A\x1b[5~\x1b[1;5D\x1b[Z123";  // four keys, the last unknown
  Pipe input;
  Redirect stdinFromPipe(STDIN_FILENO, input.read);
  Console console;
  Console::KeyInfo info{0, KeyType::Unknown};
  for ([[maybe_unused]] auto _ : state) {
    Send(input.write, batch);
    for (int key = 0; key < 4; ++key) console.GetKeyInfo(&info);
    benchmark::DoNotOptimize(info);
  }
  state.SetItemsProcessed(state.iterations() * 4);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(batch.size()));
}
BENCHMARK(BM_DecodeEscapeSequencesFromPipe);

// One key read on a pseudo-terminal, with the mode switch around it.
void BM_GetCharOnTerminal(benchmark::State& state) {
  Fd master(::posix_openpt(O_RDWR | O_NOCTTY));
  if (::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0) {
    state.SkipWithError("no pseudo-terminal");
    return;
  }
  char slaveName[64];
  if (::ptsname_r(master.get(), slaveName, sizeof slaveName) != 0) {
    state.SkipWithError("no pseudo-terminal name");
    return;
  }
  Fd slave(::open(slaveName, O_RDWR | O_NOCTTY));
  Redirect stdinFromTerminal(STDIN_FILENO, slave.get());
  Console console;
  const std::string batch(64, 'k');
  for ([[maybe_unused]] auto _ : state) {
    Send(master.get(), batch);
    for (size_t i = 0; i < batch.size(); ++i) benchmark::DoNotOptimize(console.GetChar());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(batch.size()));
}
BENCHMARK(BM_GetCharOnTerminal);

// Inserting and deleting one character in the middle of a line of range(0)
// characters, each with its screen update.
void BM_EditInTheMiddleOfALongLine(benchmark::State& state) {
  Fd devNull(::open("/dev/null", O_WRONLY));
  Redirect stdoutToNull(STDOUT_FILENO, devNull.get());
  CmdLineInterface cli;
  const auto length = static_cast<size_t>(state.range(0));
  Access::currentLine(cli) = std::string(length, 'x');
  Access::cursor(cli) = static_cast<uint32_t>(length / 2);
  for ([[maybe_unused]] auto _ : state) {
    Access::handleKey(cli, 'y', KeyType::Char);
    Access::handleKey(cli, 127, KeyType::Backspace);
  }
  state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(BM_EditInTheMiddleOfALongLine)->Arg(80)->Arg(500)->Arg(4000);

// A whole line through readLine: 500 characters, 250 Lefts, 100 insertions
// in the middle and Enter, all read from a pipe.
void BM_ReadLongLineWithMiddleEdits(benchmark::State& state) {
  std::string keys(500, 'a');
  for (int i = 0; i < 250; ++i) keys += "\x1b[D";
  keys += std::string(100, 'b');
  keys += '\r';
  Fd devNull(::open("/dev/null", O_WRONLY));
  Redirect stdoutToNull(STDOUT_FILENO, devNull.get());
  Pipe input;
  Redirect stdinFromPipe(STDIN_FILENO, input.read);
  CmdLineInterface cli;
  for ([[maybe_unused]] auto _ : state) {
    Send(input.write, keys);
    Access::readLine(cli);
  }
  state.SetItemsProcessed(state.iterations() * 851);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(keys.size()));
}
BENCHMARK(BM_ReadLongLineWithMiddleEdits);

}  // namespace
}  // namespace zel::cli
