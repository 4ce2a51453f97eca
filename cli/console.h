// The terminal layer of the command-line interface: reads one key at a time
// from standard input (raw mode only while a key is awaited), decodes escape
// sequences, writes text and colours to standard output, and notes when its
// input has ended. Used from the interface's loop thread only, except Wakeup,
// which any thread and a signal handler may call. Owns its wake-up eventfd.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace zel::cli {

class Console {
 public:
  // What a decoded key means. 4 is never produced.
  enum class KeyType : int32_t {
    Unknown = 0,
    Char = 1,
    Backspace = 2,
    Enter = 3,
    Left = 5,
    Right = 6,
    Up = 7,
    Down = 8,
    Home = 9,
    Insert = 10,
    Delete = 11,
    End = 12,
    WordLeft = 13,
    WordRight = 14,
    Tab = 15,
    PageUp = 16,
    PageDown = 17,
  };

  // One decoded key. For a single byte, `key` is that byte; for a recognised
  // escape sequence it is a blank, whatever the sequence was.
  struct KeyInfo {
    uint16_t key;
    KeyType type;
  };

  enum class Color : int32_t {
    Red = 1,
    Green = 2,
    Yellow = 3,
    Blue = 4,
    Magenta = 5,
    Cyan = 6,
    Reset = 7,
  };

  // Also holds descriptor 0 open on the null device when the program was
  // started without standard input, so that neither the wake-up descriptor
  // nor a socket made later can take it; reading it then ends the input.
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // One byte from standard input; 0 once woken, 0xFF when the read fails.
  char GetChar();
  // True once a key read found standard input at its end or hung up: a read
  // returned 0 or failed (other than by a signal), or poll reported a
  // hang-up, an error or an invalid descriptor. It stays true; every later
  // read returns at once, so a loop that reads keys must end on it.
  bool InputEnded() const { return mInputEnded; }
  // Reads one key and decodes it.
  void GetKeyInfo(KeyInfo* info);
  // Decodes a key whose first byte is already known.
  void GetKeyInfoFromChar(char c, KeyInfo* info);
  // Decodes what follows an escape byte, reading further bytes as needed.
  void GetKeyInfoFromEscape(char c, KeyInfo* info);
  // Classifies a control byte (anything neither printable nor escape).
  void GetKeyInfoFromAscii(char c, KeyInfo* info);

  // Writes the whole string with one write to standard output.
  bool Write(const std::string& text);
  // Makes every pending and later key wait return at once. Never blocks,
  // however often it is called; async-signal-safe.
  void Wakeup();
  void SetColor(Color color);

 private:
  // Notes the end of input when poll's report on standard input shows it.
  void NoteInputEvents(short revents);
  // Notes the end of input when a read of standard input shows it.
  void NoteReadResult(ssize_t result, int error);

  int32_t mEventFd;
  bool mInputEnded = false;
};

}  // namespace zel::cli
