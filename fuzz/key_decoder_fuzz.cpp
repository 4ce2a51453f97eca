// Fuzz target: the console's key decoder, fed through standard input as the
// program reads it. Every decoded key is compared with a plain restatement of
// the key tables, and so is the number of bytes that each key took.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "cli/console.h"
#include "fuzz/require.h"
#include "fuzz/stdin_feed.h"

namespace {

using zel::cli::Console;
using KeyType = Console::KeyType;
using zel::fuzz::Require;

// Put in `key` before each decode: an unknown escape sequence leaves `key`
// as it was, and this value cannot come from a byte.
constexpr uint16_t kUntouched = 0xBEEF;

// The texts that may follow "\e[" and their keys, in the order they are
// searched.
struct EscapeRow {
  const char* text;
  KeyType type;
};
constexpr EscapeRow kEscapeRows[] = {
    {"1~",   KeyType::Home     },
    {"2~",   KeyType::Insert   },
    {"3~",   KeyType::Delete   },
    {"4~",   KeyType::End      },
    {"5~",   KeyType::PageUp   },
    {"6~",   KeyType::PageDown },
    {"7~",   KeyType::Home     },
    {"8~",   KeyType::End      },
    {"1;5D", KeyType::WordLeft },
    {"1;5C", KeyType::WordRight},
    {"A",    KeyType::Up       },
    {"B",    KeyType::Down     },
    {"C",    KeyType::Right    },
    {"D",    KeyType::Left     },
    {"F",    KeyType::End      },
    {"H",    KeyType::Home     },
};

KeyType ControlKey(uint8_t byte) {
  switch (byte) {
    case 2:
      return KeyType::Left;
    case 6:
      return KeyType::Right;
    case 8:
    case 127:
      return KeyType::Backspace;
    case 9:
      return KeyType::Tab;
    case 10:
    case 13:
      return KeyType::Enter;
    case 14:
      return KeyType::Down;
    case 16:
      return KeyType::Up;
    default:
      return KeyType::Unknown;
  }
}

// What the decoder must make of the input: reads the bytes as the console
// does, with 0 for every read past the end (the console is woken, so such a
// read returns at once with 0).
class KeyModel {
 public:
  KeyModel(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

  size_t Remaining() const { return mPos < mSize ? mSize - mPos : 0; }

  Console::KeyInfo Next() {
    const uint8_t first = Read();
    if (first >= 32 && first <= 126) return {first, KeyType::Char};
    if (first == 27) return Escape();
    return {first, ControlKey(first)};
  }

 private:
  uint8_t Read() { return mPos < mSize ? mData[mPos++] : (++mPos, 0); }

  Console::KeyInfo Escape() {
    uint8_t next = Read();
    while (next == 27) next = Read();
    if (next != '[') return {next, KeyType::Char};
    // The sequence is compared as a C text: a zero byte ends it early.
    char sequence[5] = {};
    for (size_t length = 0; length < 4; ++length) {
      sequence[length] = static_cast<char>(Read());
      for (const EscapeRow& row : kEscapeRows) {
        if (std::strcmp(sequence, row.text) == 0) return {' ', row.type};
      }
    }
    return {kUntouched, KeyType::Unknown};
  }

  const uint8_t* mData;
  size_t mSize;
  size_t mPos = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zel::fuzz::StdinFeed feed(data, size);
  Console console;
  // Woken up front, so that a read past the end of the input returns 0 at
  // once instead of waiting for more; input that is there is still read
  // first.
  console.Wakeup();
  KeyModel model(data, feed.Size());
  while (feed.Remaining() > 0) {
    Console::KeyInfo info{kUntouched, KeyType::Unknown};
    console.GetKeyInfo(&info);
    const Console::KeyInfo expected = model.Next();
    Require(info.type == expected.type, "the key type is the one the key tables give");
    Require(info.key == expected.key, "the key code is the byte, a blank for a sequence, untouched when unknown");
    Require(feed.Remaining() == model.Remaining(), "each key takes exactly the bytes the key tables give it");
  }
  return 0;
}
