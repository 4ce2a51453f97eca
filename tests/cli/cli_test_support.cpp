#include "tests/cli/cli_test_support.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "tests/cli/test_commands.h"
#include "tests/support/wait_until.h"

namespace zel::cli::test {

bool operator==(const Key& a, const Key& b) { return a.key == b.key && a.type == b.type; }

void PrintTo(const Key& key, std::ostream* os) {
  *os << "{key " << key.key << ", type " << static_cast<int>(key.type) << "}";
}

namespace {

constexpr uint16_t kUntouchedKey = 0xBEEF;
constexpr auto kUntouchedType = static_cast<KeyType>(-1);

Key AsKey(const Console::KeyInfo& info) { return Key{info.key, info.type}; }

}  // namespace

Key ReadKey(Console& console) {
  Console::KeyInfo info{kUntouchedKey, kUntouchedType};
  console.GetKeyInfo(&info);
  return AsKey(info);
}

Key DecodeByte(Console& console, char c) {
  Console::KeyInfo info{kUntouchedKey, kUntouchedType};
  console.GetKeyInfoFromChar(c, &info);
  return AsKey(info);
}

::zel::test::LogRecord UnknownKeyRecord(unsigned byte) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%x", byte);
  return {LOG_WARNING,
          "void zel::cli::Console::GetKeyInfoFromAscii(char, zel::cli::Console::KeyInfo*) 160: "
          "GetKeyInfoFromAscii 160 : unknown key [" +
              std::string(hex) + "] found"};
}

std::vector<std::string> Chars(const std::string& text, std::vector<std::string> more) {
  std::vector<std::string> keys;
  for (char c : text) keys.emplace_back(1, c);
  keys.insert(keys.end(), more.begin(), more.end());
  return keys;
}

std::string Times(const std::string& text, size_t count) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text;
  return all;
}

std::string Bs(size_t count) { return std::string(count, '\b'); }

std::string EraseLine(size_t length) {
  std::string erase = Bs(length) + std::string(length, ' ') + Bs(length);
  erase += '\0';
  return erase;
}

std::string HelpTableOnTerminal() {
  const auto blanks = [](size_t count) { return std::string(count, ' '); };
  // clang-format off
  return "cmd:" + blanks(13) + "\texplain:" + blanks(32) + "\tusage:\r\n" +
         "help" + blanks(13) + "\tshow commands list" + blanks(22) + "\thelp\r\n" +
         "exit" + blanks(13) + "\texit program" + blanks(28) + "\texit\r\n" +
         "quit" + blanks(13) + "\tquit program" + blanks(28) + "\tquit\r\n" +
         "send_ping" + blanks(8) + "\tsend ping message to get 'PONG' response\tsend_ping\r\n" +
         "atcmd_wlanapclist\tget all connected station for wifi AP" + blanks(3) +
         "\tatcmd_wlanapclist\r\n" +
         "atcmd_wlanmac" + blanks(4) + "\tget wif AP's mac address" + blanks(16) +
         "\tatcmd_wlanmac\r\n";
  // clang-format on
}

std::string LiteralRegex(const std::string& literal) {
  std::string regex;
  for (char c : literal) {
    if (std::string(".[]{}()\\*+?^$|").find(c) != std::string::npos) regex += '\\';
    regex += c;
  }
  return regex;
}

size_t PendingInput() {
  // A canonical terminal counts only whole lines, so line editing is off
  // for the moment of the count.
  struct termios saved;
  if (tcgetattr(STDIN_FILENO, &saved) != 0) throw std::runtime_error("standard input is no terminal");
  struct termios raw = saved;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON);
  tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  int count = 0;
  ioctl(STDIN_FILENO, FIONREAD, &count);
  tcsetattr(STDIN_FILENO, TCSANOW, &saved);
  return static_cast<size_t>(count);
}

void LineBufferedStdout() {
  // The C library applies a new mode to a stream already in use only
  // together with a buffer of the caller's, which must outlive the stream.
  static char buffer[BUFSIZ];
  std::fflush(stdout);
  std::setvbuf(stdout, buffer, _IOLBF, sizeof buffer);
}

StdinPipe::StdinPipe() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  mRead = fds[0];
  mWrite = fds[1];
  mSavedIn = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ::dup2(mRead, STDIN_FILENO);
}

StdinPipe::~StdinPipe() {
  ::dup2(mSavedIn, STDIN_FILENO);
  ::close(mSavedIn);
  ::close(mRead);
  if (mWrite >= 0) ::close(mWrite);
}

void StdinPipe::CloseWriter() {
  ::close(mWrite);
  mWrite = -1;
}

void StdinPipe::Write(const std::string& bytes) {
  if (::write(mWrite, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("write to pipe failed");
  }
}

size_t StdinPipe::Unread() const {
  int count = 0;
  ioctl(mRead, FIONREAD, &count);
  return static_cast<size_t>(count);
}

bool StdinPipe::WaitUntilAllRead() const {
  // The reader gives no signal when it takes a byte; look again shortly.
  return ::zel::test::WaitUntil([this] { return Unread() == 0; });
}

StdinRedirect::StdinRedirect(int fd) {
  mSavedIn = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  if (mSavedIn < 0) throw std::runtime_error("cannot save standard input");
  if (fd >= 0) {
    ::dup2(fd, STDIN_FILENO);
  } else {
    ::close(STDIN_FILENO);
  }
}

StdinRedirect::~StdinRedirect() {
  ::dup2(mSavedIn, STDIN_FILENO);
  ::close(mSavedIn);
}

StdoutRedirect::StdoutRedirect(int fd) {
  std::fflush(stdout);
  mSavedOut = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  ::dup2(fd, STDOUT_FILENO);
}

StdoutRedirect::~StdoutRedirect() {
  std::fflush(stdout);
  ::dup2(mSavedOut, STDOUT_FILENO);
  ::close(mSavedOut);
}

CliTest::CliTest() {
  LineBufferedStdout();
  cli.setPrompt(kPrompt);
  cli.registerCommands(DeviceCommands());
}

void CliTest::Press(const std::vector<std::string>& keys) {
  std::string all;
  for (const std::string& key : keys) all += key;
  terminal.Type(all);
  for (size_t i = 0; i < keys.size(); ++i) Access::readKey(cli);
  EXPECT_EQ(PendingInput(), 0u) << "keys left unread";
}

void CliTest::Edit(const std::vector<std::string>& keys) {
  Access::startLine(cli);
  Press(keys);
}

void CliTest::RunLine(const std::string& keys) {
  terminal.Type(keys);
  Access::readLine(cli);
  Access::executeLine(cli);
}

}  // namespace zel::cli::test
