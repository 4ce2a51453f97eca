#include "cli/console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "cli/raw_mode_guard.h"

namespace zel::cli {
namespace {

using KeyType = Console::KeyType;

constexpr char kConsoleText[] = "zel::cli::Console::Console()";
constexpr char kGetKeyInfoFromAsciiText[] =
    "void zel::cli::Console::GetKeyInfoFromAscii(char, zel::cli::Console::KeyInfo*)";
constexpr char kGetKeyInfoFromAsciiShortText[] = "GetKeyInfoFromAscii";

constexpr char kEscape = 27;
constexpr char kReadFailed = static_cast<char>(0xFF);

// The texts that may follow "\e[", searched in this order; the first equal
// one decides the key.
struct EscapeKey {
  KeyType type;
  const char* text;
};

constexpr EscapeKey kEscapeKeys[16] = {
    {KeyType::Home,      "1~"  },
    {KeyType::Insert,    "2~"  },
    {KeyType::Delete,    "3~"  },
    {KeyType::End,       "4~"  },
    {KeyType::PageUp,    "5~"  },
    {KeyType::PageDown,  "6~"  },
    {KeyType::Home,      "7~"  },
    {KeyType::End,       "8~"  },
    {KeyType::WordLeft,  "1;5D"},
    {KeyType::WordRight, "1;5C"},
    {KeyType::Up,        "A"   },
    {KeyType::Down,      "B"   },
    {KeyType::Right,     "C"   },
    {KeyType::Left,      "D"   },
    {KeyType::End,       "F"   },
    {KeyType::Home,      "H"   },
};

// The longest text after "\e[" that can name a key.
constexpr size_t kMaxEscapeLength = 4;

// The control bytes that name a key. Every other byte that reaches the
// control decoder is unknown.
struct ControlKey {
  unsigned char byte;
  KeyType type;
};

constexpr ControlKey kControlKeys[] = {
    {2,   KeyType::Left     },
    {6,   KeyType::Right    },
    {8,   KeyType::Backspace},
    {9,   KeyType::Tab      },
    {10,  KeyType::Enter    },
    {13,  KeyType::Enter    },
    {14,  KeyType::Down     },
    {16,  KeyType::Up       },
    {127, KeyType::Backspace},
};

// The table above indexed by byte, built from it at compile time, so that a
// control byte costs one load however the build optimises. A byte per entry
// keeps it at 256 bytes.
struct ControlKeyIndex {
  uint8_t type[256];
};

constexpr ControlKeyIndex IndexControlKeys() {
  ControlKeyIndex index{};
  for (uint8_t& type : index.type) type = static_cast<uint8_t>(KeyType::Unknown);
  for (const ControlKey& key : kControlKeys) index.type[key.byte] = static_cast<uint8_t>(key.type);
  return index;
}

constexpr ControlKeyIndex kControlKeyIndex = IndexControlKeys();

KeyType ControlKeyType(unsigned char byte) { return static_cast<KeyType>(kControlKeyIndex.type[byte]); }

// A program started with standard input closed would hand descriptor 0 to the
// next descriptor it makes (the wake-up eventfd, a socket), which the console
// would then wait on as the keyboard. The null device there reads as the end
// of input instead. It stays open for the life of the process, as standard
// input does.
void HoldStandardInput() {
  if (::fcntl(STDIN_FILENO, F_GETFD) >= 0 || errno != EBADF) return;
  // Descriptor 0 is the lowest free one, so the null device lands there.
  if (::open("/dev/null", O_RDONLY) < 0) {
    syslog(LOG_ERR, "%s %d: cannot hold standard input on /dev/null, errno [%d]\n", kConsoleText, 30, errno);
  }
}

// The bytes that select a colour; empty for values outside the table.
std::string ColorSequence(Console::Color color) {
  switch (color) {
    case Console::Color::Red:
      return "\x1b[31m";
    case Console::Color::Green:
      return "\x1b[32m";
    case Console::Color::Yellow:
      return "\x1b[33m";
    case Console::Color::Blue:
      return "\x1b[34m";
    case Console::Color::Magenta:
      return "\x1b[35m";
    case Console::Color::Cyan:
      return "\x1b[36m";
    case Console::Color::Reset:
      return "\x1b[0m";
  }
  return std::string();
}

// Printable in the C locale, which the program never leaves.
bool IsPrintable(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 32 && byte <= 126;
}

uint16_t ByteValue(char c) { return static_cast<unsigned char>(c); }

// Cold, so that the key decoders are laid out for the keys they know.
[[gnu::cold, gnu::noinline]] void WarnUnknownKey(char c) {
  syslog(LOG_WARNING, "%s %d: %s %d : unknown key [0x%x] found", kGetKeyInfoFromAsciiText, 160,
         kGetKeyInfoFromAsciiShortText, 160, static_cast<unsigned>(ByteValue(c)));
}

}  // namespace

Console::Console() : mEventFd(-1) {
  HoldStandardInput();
  // Non-blocking, so that a wake-up that would overflow the counter fails at
  // once instead of waiting for a reader that never comes; the counter is
  // then non-zero already, which is all a wake-up needs.
  mEventFd = ::eventfd(0, EFD_NONBLOCK);
}

Console::~Console() {
  if (mEventFd >= 0) ::close(mEventFd);
}

char Console::GetChar() {
  RawModeGuard rawMode;
  struct pollfd fds[2] = {
      {STDIN_FILENO, POLLIN, 0},
      {mEventFd,     POLLIN, 0}
  };
  char c = 0;
  // Anything but plain readable input (a wake-up, a hang-up, an interrupted
  // poll) yields 0. The wake-up event is never consumed, so once woken every
  // later call returns at once.
  if (::poll(fds, 2, -1) > 0) {
    NoteInputEvents(fds[0].revents);
    if (fds[0].revents == POLLIN) {
      const ssize_t result = ::read(STDIN_FILENO, &c, 1);
      if (result != 1) {
        NoteReadResult(result, errno);
        return kReadFailed;
      }
    }
  }
  return c;
}

void Console::NoteInputEvents(short revents) {
  if ((revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) mInputEnded = true;
}

void Console::NoteReadResult(ssize_t result, int error) {
  // A signal only interrupts the read; the input is still there.
  if (result == 0 || (result < 0 && error != EINTR)) mInputEnded = true;
}

void Console::GetKeyInfo(KeyInfo* info) { GetKeyInfoFromChar(GetChar(), info); }

void Console::GetKeyInfoFromChar(char c, KeyInfo* info) {
  if (IsPrintable(c)) {
    info->key = ByteValue(c);
    info->type = KeyType::Char;
  } else if (c == kEscape) {
    GetKeyInfoFromEscape(c, info);
  } else {
    GetKeyInfoFromAscii(c, info);
  }
}

// Kept out of line, as is the unknown-key warning: inlined into the per-byte
// decoder, their register needs would be paid on every printable byte too,
// which the build for size (link-time optimised) otherwise does.
[[gnu::noinline]] void Console::GetKeyInfoFromEscape(char c, KeyInfo* info) {
  if (c != kEscape) {
    info->type = KeyType::Unknown;
    return;
  }
  char next = GetChar();
  while (next == kEscape) next = GetChar();
  // Alt+x and an escape before any other byte give that byte as a character.
  if (next != '[') {
    info->key = ByteValue(next);
    info->type = KeyType::Char;
    return;
  }
  // One byte more than the longest text keeps the buffer terminated.
  char sequence[kMaxEscapeLength + 1] = {};
  for (size_t length = 0; length < kMaxEscapeLength; ++length) {
    sequence[length] = GetChar();
    for (const EscapeKey& row : kEscapeKeys) {
      if (std::strcmp(sequence, row.text) == 0) {
        info->key = ' ';
        info->type = row.type;
        return;
      }
    }
  }
  // Unknown sequences are dropped silently after four bytes; longer ones
  // leave their remaining bytes to be read as keys.
  info->type = KeyType::Unknown;
}

void Console::GetKeyInfoFromAscii(char c, KeyInfo* info) {
  info->key = ByteValue(c);
  info->type = ControlKeyType(static_cast<unsigned char>(c));
  if (info->type == KeyType::Unknown) WarnUnknownKey(c);
}

bool Console::Write(const std::string& text) {
  const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
  if (written >= 0 && static_cast<size_t>(written) == text.size()) return true;
  syslog(LOG_ERR, "write target size [%zu] real size [%zd]\n", text.size(), written);
  return false;
}

void Console::Wakeup() {
  if (mEventFd < 0) return;
  // The eventfd adds these eight bytes, read as one 64-bit number, to its
  // counter; any non-zero value makes it readable. The third such write
  // would overflow the counter and fails: it is not needed.
  const ssize_t ignored = ::write(mEventFd, "evt_exit", 8);
  (void)ignored;
}

void Console::SetColor(Color color) { Write(ColorSequence(color)); }

}  // namespace zel::cli
