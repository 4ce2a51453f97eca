// Helpers for the in-process tests of the command-line interface: the byte
// sequences of the keys, decoding with a checkable result, the unknown-key log
// record, redirections of standard input and output, and a fixture that puts
// an interface with the system's commands on a pseudo-terminal.
// One thread at a time.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "cli/cmd_line_interface.h"
#include "cli/console.h"
#include "gtest/gtest.h"
#include "tests/cli/cli_test_access.h"
#include "tests/support/log_record.h"
#include "tests/support/pty_stdio.h"

namespace zel::cli::test {

// What the keys send on a terminal.
namespace keys {
inline constexpr char kUp[] = "\x1b[A";
inline constexpr char kDown[] = "\x1b[B";
inline constexpr char kRight[] = "\x1b[C";
inline constexpr char kLeft[] = "\x1b[D";
inline constexpr char kHome[] = "\x1b[H";
inline constexpr char kEnd[] = "\x1b[F";
inline constexpr char kInsert[] = "\x1b[2~";
inline constexpr char kDelete[] = "\x1b[3~";
inline constexpr char kPageUp[] = "\x1b[5~";
inline constexpr char kPageDown[] = "\x1b[6~";
inline constexpr char kCtrlLeft[] = "\x1b[1;5D";
inline constexpr char kCtrlRight[] = "\x1b[1;5C";
inline constexpr char kTab[] = "\t";
inline constexpr char kBackspace[] = "\x7f";
inline constexpr char kEnter[] = "\r";
}  // namespace keys

// The banner and the first prompt as the terminal shows them.
inline const std::string kStart =
    "*******************************\r\n kendrivex cli\r\n*******************************\r\nhi>";

using KeyType = Console::KeyType;
using Access = CmdLineInterfaceTestAccess;

// A decoded key in a form that compares and prints.
struct Key {
  int key;
  KeyType type;
};
bool operator==(const Key& a, const Key& b);
void PrintTo(const Key& key, std::ostream* os);

// Reads one key into a record whose fields start out as markers (0xBEEF and
// type -1), so that untouched fields show.
Key ReadKey(Console& console);
// Decodes a known first byte the same way.
Key DecodeByte(Console& console, char c);

// The warning the console logs for an unknown byte.
::zel::test::LogRecord UnknownKeyRecord(unsigned byte);

// The keys that type `text` character by character, then `more`.
std::vector<std::string> Chars(const std::string& text, std::vector<std::string> more = {});

// `count` copies of `text`.
std::string Times(const std::string& text, size_t count);
// `count` backspace bytes.
std::string Bs(size_t count);

// What "help" prints with the system's six commands, as the terminal shows
// it: names padded to 17 characters, explanations to 40, tabs between.
std::string HelpTableOnTerminal();

// What the editor writes to erase a line of `length` characters: back over
// the text, blanks over it, back again, and a NUL byte.
std::string EraseLine(size_t length);

// A regular expression that matches `literal` exactly.
std::string LiteralRegex(const std::string& literal);

// Bytes typed on the terminal at standard input and not read yet.
size_t PendingInput();

// Standard output through stdio is line-buffered from here on, as it is on a
// terminal, so that printf lines and direct writes reach the pty in order.
void LineBufferedStdout();

// Puts a pipe on standard input for the object's lifetime. Unlike a terminal,
// a pipe tells exactly how many bytes are still unread at any moment.
class StdinPipe {
 public:
  StdinPipe();
  ~StdinPipe();
  StdinPipe(const StdinPipe&) = delete;
  StdinPipe& operator=(const StdinPipe&) = delete;

  void Write(const std::string& bytes);
  // Closes the writing end: once the written bytes are read, the input ends.
  void CloseWriter();
  size_t Unread() const;
  // Waits until every written byte has been read; false on time-out.
  bool WaitUntilAllRead() const;

 private:
  int mRead = -1;
  int mWrite = -1;
  int mSavedIn = -1;
};

// Points standard input at `fd` for the object's lifetime; a negative `fd`
// leaves descriptor 0 closed. The caller keeps `fd` and closes it.
class StdinRedirect {
 public:
  explicit StdinRedirect(int fd);
  ~StdinRedirect();
  StdinRedirect(const StdinRedirect&) = delete;
  StdinRedirect& operator=(const StdinRedirect&) = delete;

 private:
  int mSavedIn = -1;
};

// Points standard output at `fd` for the object's lifetime.
class StdoutRedirect {
 public:
  explicit StdoutRedirect(int fd);
  ~StdoutRedirect();
  StdoutRedirect(const StdoutRedirect&) = delete;
  StdoutRedirect& operator=(const StdoutRedirect&) = delete;

 private:
  int mSavedOut = -1;
};

// An interface with prompt "hi>" and the system's six commands, with standard
// input and output on a pseudo-terminal.
class CliTest : public ::testing::Test {
 protected:
  CliTest();

  // Types all keys at once, then applies them one by one as readLine does.
  // Checks that exactly these keys were read.
  void Press(const std::vector<std::string>& keys);
  // Starts a fresh line and applies the keys (see Press).
  void Edit(const std::vector<std::string>& keys);
  // Types the keys and runs one turn of the loop: readLine, then executeLine.
  void RunLine(const std::string& keys);
  // Bytes written to the terminal since the last call ("\n" arrives as "\r\n").
  std::string Written() { return terminal.TakeWritten(); }

  std::string& line() { return Access::currentLine(cli); }
  uint32_t cursor() { return Access::cursor(cli); }
  std::list<std::string>& history() { return Access::history(cli); }
  Access::Screen* screen() { return Access::screen(cli); }

  ::zel::test::PtyStdio terminal;
  CmdLineInterface cli;
};

}  // namespace zel::cli::test
