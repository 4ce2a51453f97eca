#include "cli/console.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/cli/cli_test_support.h"
#include "tests/support/pty_stdio.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait_until.h"

namespace zel::cli::test {
namespace {

using ::zel::test::LogRecord;
using ::zel::test::PtyStdio;
using ::zel::test::SyslogCapture;
using Records = std::vector<LogRecord>;
using namespace keys;

constexpr int kUntouched = 0xBEEF;

class ConsoleTest : public ::testing::Test {
 protected:
  PtyStdio terminal;
  Console console;
};

// Waits until the typed bytes have reached the terminal's input queue.
bool WaitForPendingInput(size_t count) {
  return ::zel::test::WaitUntil([count] { return PendingInput() >= count; });
}

size_t OpenDescriptors() {
  size_t count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// --- Keys as a terminal sends them ---

TEST_F(ConsoleTest, UpArrowYieldsBlankKeyOfTypeUp) {
  terminal.Type(std::string(kUp) + "q");
  EXPECT_EQ(ReadKey(console), (Key{32, KeyType::Up}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, CtrlPYieldsItsOwnByteOfTypeUp) {
  terminal.Type("\x10");
  EXPECT_EQ(ReadKey(console), (Key{16, KeyType::Up}));
}

TEST_F(ConsoleTest, CtrlLeftIsWordLeftAfterExactlyFourBytes) {
  terminal.Type(std::string(kCtrlLeft) + "q");
  EXPECT_EQ(ReadKey(console), (Key{32, KeyType::WordLeft}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
}

TEST_F(ConsoleTest, LoneEscapeWaitsForTheNextByte) {
  std::atomic<bool> done{false};
  Console::KeyInfo info{kUntouched, KeyType::Unknown};
  // The escape has been read; nothing else is typed yet.
  std::thread reader([&] {
    console.GetKeyInfoFromChar('\x1b', &info);
    done = true;
  });
  ASSERT_TRUE(terminal.pty().WaitForKeyRead(std::chrono::seconds(10)));
  EXPECT_FALSE(done);
  terminal.Type("x");
  reader.join();
  EXPECT_EQ((Key{info.key, info.type}), (Key{'x', KeyType::Char}));
}

TEST_F(ConsoleTest, EscapeThenLetterYieldsTheLetter) {
  terminal.Type("\x1bxq");
  EXPECT_EQ(ReadKey(console), (Key{'x', KeyType::Char}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
}

TEST_F(ConsoleTest, EscapeThenEnterYieldsACharacterNotEnter) {
  // The terminal turns the typed CR into LF.
  terminal.Type("\x1b\r");
  EXPECT_EQ(ReadKey(console), (Key{10, KeyType::Char}));
}

TEST_F(ConsoleTest, EscapeThenControlByteYieldsThatByteAsCharacter) {
  terminal.Type("\x1b\x01");
  EXPECT_EQ(ReadKey(console), (Key{1, KeyType::Char}));
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, RunOfEscapesIsSwallowed) {
  terminal.Type("\x1b\x1b\x1b[Bq");
  EXPECT_EQ(ReadKey(console), (Key{32, KeyType::Down}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
}

TEST_F(ConsoleTest, UnknownSequenceTakesFourBytesSilently) {
  terminal.Type("\x1b[Zabcq");
  EXPECT_EQ(ReadKey(console), (Key{kUntouched, KeyType::Unknown}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, LongerUnknownSequenceLeavesItsRestAsKeys) {
  // "\e[1;2D" (Shift+Left) is not in the table: "1;2D" is taken, "q" follows.
  terminal.Type("\x1b[1;2Dq");
  EXPECT_EQ(ReadKey(console), (Key{kUntouched, KeyType::Unknown}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
}

TEST_F(ConsoleTest, ShortUnknownSequenceWaitsAndTakesTheNextKeysFirstByte) {
  // A pipe tells exactly when the reader has taken every byte of F5.
  StdinPipe input;
  input.Write("\x1b[15~");
  std::atomic<bool> done{false};
  Key key{};
  std::thread reader([&] {
    key = ReadKey(console);
    done = true;
  });
  ASSERT_TRUE(input.WaitUntilAllRead());
  EXPECT_FALSE(done);
  input.Write("aq");
  reader.join();
  EXPECT_EQ(key, (Key{kUntouched, KeyType::Unknown}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, CtrlAIsUnknownAndLogged) {
  terminal.Type("\x01");
  EXPECT_EQ(ReadKey(console), (Key{1, KeyType::Unknown}));
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x1)}));
}

TEST_F(ConsoleTest, BytesOfAMultiByteCharacterAreLoggedOneByOne) {
  terminal.Type("\xc3\xa9");
  EXPECT_EQ(ReadKey(console), (Key{0xc3, KeyType::Unknown}));
  EXPECT_EQ(ReadKey(console), (Key{0xa9, KeyType::Unknown}));
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0xc3), UnknownKeyRecord(0xa9)}));
}

TEST_F(ConsoleTest, AllSeventeenKeyTypesDecodeFromOneTypedStream) {
  terminal.Type(std::string("\x01") + "a" + kBackspace + kEnter + kLeft + kRight + kUp + kDown + kHome + kInsert +
                kDelete + kEnd + kCtrlLeft + kCtrlRight + kTab + kPageUp + kPageDown + "q");
  const std::vector<Key> expected = {
      {1,   KeyType::Unknown  },
      {'a', KeyType::Char     },
      {127, KeyType::Backspace},
      {10,  KeyType::Enter    },
      {32,  KeyType::Left     },
      {32,  KeyType::Right    },
      {32,  KeyType::Up       },
      {32,  KeyType::Down     },
      {32,  KeyType::Home     },
      {32,  KeyType::Insert   },
      {32,  KeyType::Delete   },
      {32,  KeyType::End      },
      {32,  KeyType::WordLeft },
      {32,  KeyType::WordRight},
      {9,   KeyType::Tab      },
      {32,  KeyType::PageUp   },
      {32,  KeyType::PageDown },
      {'q', KeyType::Char     },
  };
  std::vector<Key> decoded;
  for (size_t i = 0; i < expected.size(); ++i) decoded.push_back(ReadKey(console));
  EXPECT_EQ(decoded, expected);
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x1)}));
}

TEST_F(ConsoleTest, PasteOfManyKeysDecodesInOrder) {
  const std::string pattern = std::string("ab") + kLeft + kPageDown + "\x1b\x1b[1;5C" + "\x02";
  terminal.Type(Times(pattern, 100));
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(ReadKey(console), (Key{'a', KeyType::Char})) << "round " << i;
    ASSERT_EQ(ReadKey(console), (Key{'b', KeyType::Char}));
    ASSERT_EQ(ReadKey(console), (Key{32, KeyType::Left}));
    ASSERT_EQ(ReadKey(console), (Key{32, KeyType::PageDown}));
    ASSERT_EQ(ReadKey(console), (Key{32, KeyType::WordRight}));
    ASSERT_EQ(ReadKey(console), (Key{2, KeyType::Left}));
  }
  EXPECT_EQ(PendingInput(), 0u);
}

// --- The escape table, row by row ---

struct EscapeRow {
  const char* text;
  KeyType type;
};

void PrintTo(const EscapeRow& row, std::ostream* os) {
  *os << "\\e[" << row.text << " -> type " << static_cast<int>(row.type);
}

class EscapeTableTest : public ConsoleTest, public ::testing::WithParamInterface<EscapeRow> {};

TEST_P(EscapeTableTest, SequenceYieldsBlankKeyOfItsTypeAndNothingMore) {
  terminal.Type(std::string("\x1b[") + GetParam().text + "q");
  EXPECT_EQ(ReadKey(console), (Key{32, GetParam().type}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
}

INSTANTIATE_TEST_SUITE_P(
    AllRows, EscapeTableTest,
    ::testing::Values(EscapeRow{"1~", KeyType::Home}, EscapeRow{"2~", KeyType::Insert},
                      EscapeRow{"3~", KeyType::Delete}, EscapeRow{"4~", KeyType::End}, EscapeRow{"5~", KeyType::PageUp},
                      EscapeRow{"6~", KeyType::PageDown}, EscapeRow{"7~", KeyType::Home}, EscapeRow{"8~", KeyType::End},
                      EscapeRow{"1;5D", KeyType::WordLeft}, EscapeRow{"1;5C", KeyType::WordRight},
                      EscapeRow{"A", KeyType::Up}, EscapeRow{"B", KeyType::Down}, EscapeRow{"C", KeyType::Right},
                      EscapeRow{"D", KeyType::Left}, EscapeRow{"F", KeyType::End}, EscapeRow{"H", KeyType::Home}),
    [](const ::testing::TestParamInfo<EscapeRow>& info) { return "Row" + std::to_string(info.index); });

// --- Single bytes ---

struct ControlByte {
  int byte;
  KeyType type;
};

void PrintTo(const ControlByte& row, std::ostream* os) {
  *os << "byte " << row.byte << " -> type " << static_cast<int>(row.type);
}

class ControlByteTest : public ConsoleTest, public ::testing::WithParamInterface<ControlByte> {};

TEST_P(ControlByteTest, ByteYieldsItselfWithItsTypeAndNoLog) {
  EXPECT_EQ(DecodeByte(console, static_cast<char>(GetParam().byte)), (Key{GetParam().byte, GetParam().type}));
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

INSTANTIATE_TEST_SUITE_P(AllBytes, ControlByteTest,
                         ::testing::Values(ControlByte{2, KeyType::Left}, ControlByte{6, KeyType::Right},
                                           ControlByte{8, KeyType::Backspace}, ControlByte{127, KeyType::Backspace},
                                           ControlByte{9, KeyType::Tab}, ControlByte{10, KeyType::Enter},
                                           ControlByte{13, KeyType::Enter}, ControlByte{14, KeyType::Down},
                                           ControlByte{16, KeyType::Up}),
                         [](const ::testing::TestParamInfo<ControlByte>& info) {
                           return "Byte" + std::to_string(info.param.byte);
                         });

TEST_F(ConsoleTest, ControlDecoderGivesEveryByteItsTypeAndWarnsOfTheRest) {
  // Printable bytes and the escape byte never reach this decoder from a key
  // read; given them directly, it knows them no more than any other byte.
  const std::map<int, KeyType> named = {
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
  Records expected;
  for (int byte = 0; byte <= 255; ++byte) {
    Console::KeyInfo info{kUntouched, KeyType::Char};
    console.GetKeyInfoFromAscii(static_cast<char>(byte), &info);
    const auto row = named.find(byte);
    const KeyType type = row != named.end() ? row->second : KeyType::Unknown;
    EXPECT_EQ((Key{info.key, info.type}), (Key{byte, type}));
    if (type == KeyType::Unknown) expected.push_back(UnknownKeyRecord(static_cast<unsigned>(byte)));
  }
  EXPECT_EQ(SyslogCapture::Records(), expected);
}

TEST_F(ConsoleTest, TypedControlBytesDecodeThroughTheTerminal) {
  terminal.Type("\x02\x06\x08\x7f\t\n\x0e\x10");
  EXPECT_EQ(ReadKey(console), (Key{2, KeyType::Left}));
  EXPECT_EQ(ReadKey(console), (Key{6, KeyType::Right}));
  EXPECT_EQ(ReadKey(console), (Key{8, KeyType::Backspace}));
  EXPECT_EQ(ReadKey(console), (Key{127, KeyType::Backspace}));
  EXPECT_EQ(ReadKey(console), (Key{9, KeyType::Tab}));
  EXPECT_EQ(ReadKey(console), (Key{10, KeyType::Enter}));
  EXPECT_EQ(ReadKey(console), (Key{14, KeyType::Down}));
  EXPECT_EQ(ReadKey(console), (Key{16, KeyType::Up}));
}

TEST_F(ConsoleTest, EveryPrintableByteIsACharacter) {
  for (int byte = 32; byte <= 126; ++byte) {
    EXPECT_EQ(DecodeByte(console, static_cast<char>(byte)), (Key{byte, KeyType::Char}));
  }
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, EveryOtherByteIsUnknownAndLoggedAsUnsignedByte) {
  const std::vector<int> known = {2, 6, 8, 9, 10, 13, 14, 16, 27, 127};
  Records expected;
  for (int byte = 0; byte <= 255; ++byte) {
    if (byte >= 32 && byte <= 126) continue;
    if (std::find(known.begin(), known.end(), byte) != known.end()) continue;
    EXPECT_EQ(DecodeByte(console, static_cast<char>(byte)), (Key{byte, KeyType::Unknown}));
    expected.push_back(UnknownKeyRecord(static_cast<unsigned>(byte)));
  }
  EXPECT_EQ(SyslogCapture::Records(), expected);
}

TEST_F(ConsoleTest, EscapeDecoderGivenAnotherByteReportsUnknownAndReadsNothing) {
  terminal.Type("q");
  Console::KeyInfo info{kUntouched, KeyType::Char};
  console.GetKeyInfoFromEscape('a', &info);
  EXPECT_EQ((Key{info.key, info.type}), (Key{kUntouched, KeyType::Unknown}));
  EXPECT_EQ(ReadKey(console), (Key{'q', KeyType::Char}));
}

// --- Reading ---

TEST_F(ConsoleTest, TerminalIsRawOnlyWhileAKeyIsAwaited) {
  struct termios before;
  ASSERT_EQ(tcgetattr(STDIN_FILENO, &before), 0);
  before.c_lflag |= ECHO;  // so that the test also sees echo switched off
  ASSERT_EQ(tcsetattr(STDIN_FILENO, TCSANOW, &before), 0);
  ASSERT_EQ(tcgetattr(STDIN_FILENO, &before), 0);

  char byte = 0;
  std::thread reader([&] { byte = console.GetChar(); });
  ASSERT_TRUE(terminal.pty().WaitForKeyRead(std::chrono::seconds(10)));
  struct termios during;
  ASSERT_EQ(tcgetattr(STDIN_FILENO, &during), 0);
  terminal.Type("k");
  reader.join();
  struct termios after;
  ASSERT_EQ(tcgetattr(STDIN_FILENO, &after), 0);

  EXPECT_EQ(during.c_lflag, before.c_lflag & ~static_cast<tcflag_t>(ICANON | ECHO));
  EXPECT_NE(during.c_lflag & ISIG, 0u);
  EXPECT_EQ(during.c_iflag, before.c_iflag);
  EXPECT_EQ(during.c_oflag, before.c_oflag);
  EXPECT_EQ(during.c_cflag, before.c_cflag);
  EXPECT_EQ(std::vector<cc_t>(during.c_cc, during.c_cc + NCCS), std::vector<cc_t>(before.c_cc, before.c_cc + NCCS));
  EXPECT_EQ(byte, 'k');
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  EXPECT_EQ(after.c_iflag, before.c_iflag);
  ASSERT_EQ(terminal.TakeWritten(), "");  // the key was not echoed
}

TEST_F(ConsoleTest, ReadFailureYieldsFFWhichIsLoggedAsUnknown) {
  terminal.CloseInput();
  EXPECT_EQ(console.GetChar(), static_cast<char>(0xFF));
  EXPECT_EQ(ReadKey(console), (Key{0xff, KeyType::Unknown}));
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0xff)}));
}

TEST_F(ConsoleTest, AfterWakeupGetCharReturnsZeroAtOnceAndRepeatedly) {
  console.Wakeup();
  EXPECT_EQ(console.GetChar(), 0);
  EXPECT_EQ(console.GetChar(), 0);
  EXPECT_EQ(console.GetChar(), 0);
}

TEST_F(ConsoleTest, AfterWakeupAKeyReadYieldsUnknownZeroWithWarning) {
  console.Wakeup();
  EXPECT_EQ(ReadKey(console), (Key{0, KeyType::Unknown}));
  EXPECT_EQ(SyslogCapture::Records(), Records({UnknownKeyRecord(0x0)}));
}

TEST_F(ConsoleTest, WakeupFromAnotherThreadEndsAWaitingRead) {
  char byte = 'x';
  std::thread reader([&] { byte = console.GetChar(); });
  ASSERT_TRUE(terminal.pty().WaitForKeyRead(std::chrono::seconds(10)));
  console.Wakeup();
  reader.join();
  EXPECT_EQ(byte, 0);
}

TEST_F(ConsoleTest, TypedKeyIsStillReadAfterWakeup) {
  console.Wakeup();
  terminal.Type("k");
  ASSERT_TRUE(WaitForPendingInput(1));
  EXPECT_EQ(console.GetChar(), 'k');
  EXPECT_EQ(console.GetChar(), 0);
}

TEST(ConsoleWithoutWakeupTest, ConsoleWithoutEventfdStillReadsKeys) {
  PtyStdio terminal;
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  // No descriptor can be opened beyond the lowest free one, which the test
  // keeps busy, so the console's eventfd fails.
  const int lowestFree = ::dup(STDIN_FILENO);
  ASSERT_GE(lowestFree, 0);
  struct rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowestFree) + 1;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  std::unique_ptr<Console> console = std::make_unique<Console>();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  ::close(lowestFree);

  console->Wakeup();
  terminal.Type("k");
  EXPECT_EQ(ReadKey(*console), (Key{'k', KeyType::Char}));
  console.reset();
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST(ConsoleLifetimeTest, DestructorClosesTheWakeupDescriptor) {
  const size_t before = OpenDescriptors();
  {
    Console console;
    EXPECT_EQ(OpenDescriptors(), before + 1);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

// --- Writing ---

TEST_F(ConsoleTest, WriteSendsEveryByteAndSucceeds) {
  EXPECT_TRUE(console.Write(std::string("ab\0c\b\x1b[0m", 9)));
  ASSERT_EQ(terminal.TakeWritten(), std::string("ab\0c\b\x1b[0m", 9));
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, WriteOfNothingSucceeds) {
  EXPECT_TRUE(console.Write(""));
  ASSERT_EQ(terminal.TakeWritten(), "");
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

TEST_F(ConsoleTest, FailedWriteIsLoggedWithSizesAndReturnsFalse) {
  const int readOnly = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(readOnly, 0);
  bool written = true;
  {
    StdoutRedirect redirect(readOnly);
    written = console.Write("hello");
  }
  ::close(readOnly);
  EXPECT_FALSE(written);
  EXPECT_EQ(SyslogCapture::Records(), Records({
                                          {LOG_ERR, "write target size [5] real size [-1]\n"}
  }));
}

TEST_F(ConsoleTest, ShortWriteIsLoggedWithSizesAndNotRetried) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_GT(::fcntl(fds[1], F_SETPIPE_SZ, 4096), 0);
  const std::string text(100000, 'x');
  bool written = true;
  {
    StdoutRedirect redirect(fds[1]);
    written = console.Write(text);
  }
  std::string arrived;
  char buffer[8192];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) arrived.append(buffer, n);
  ::close(fds[0]);
  ::close(fds[1]);
  EXPECT_FALSE(written);
  ASSERT_GT(arrived.size(), 0u);
  ASSERT_LT(arrived.size(), text.size());
  EXPECT_EQ(SyslogCapture::Records(),
            Records({
                {LOG_ERR, "write target size [100000] real size [" + std::to_string(arrived.size()) + "]\n"}
  }));
}

// --- Colours ---

struct ColorBytes {
  int color;
  const char* bytes;
};

void PrintTo(const ColorBytes& row, std::ostream* os) {
  *os << "colour " << row.color << " -> " << ::zel::test::Printable(row.bytes);
}

class SetColorTest : public ConsoleTest, public ::testing::WithParamInterface<ColorBytes> {};

TEST_P(SetColorTest, WritesExactlyTheColoursSequence) {
  console.SetColor(static_cast<Console::Color>(GetParam().color));
  ASSERT_EQ(terminal.TakeWritten(), GetParam().bytes);
  EXPECT_EQ(SyslogCapture::Records(), Records());
}

INSTANTIATE_TEST_SUITE_P(AllColors, SetColorTest,
                         ::testing::Values(ColorBytes{1, "\x1b[31m"}, ColorBytes{2, "\x1b[32m"},
                                           ColorBytes{3, "\x1b[33m"}, ColorBytes{4, "\x1b[34m"},
                                           ColorBytes{5, "\x1b[35m"}, ColorBytes{6, "\x1b[36m"},
                                           ColorBytes{7, "\x1b[0m"}, ColorBytes{0, ""}, ColorBytes{8, ""},
                                           ColorBytes{-1, ""}),
                         [](const ::testing::TestParamInfo<ColorBytes>& info) {
                           const int color = info.param.color;
                           return color < 0 ? "ColorMinus" + std::to_string(-color) : "Color" + std::to_string(color);
                         });

TEST_F(ConsoleTest, SetColorRedWritesFiveBytes) {
  console.SetColor(Console::Color::Red);
  const std::string written = terminal.TakeWritten();
  EXPECT_EQ(written, "\x1b[31m");
  EXPECT_EQ(written.size(), 5u);
}

TEST_F(ConsoleTest, FailedColourWriteIsLogged) {
  const int readOnly = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(readOnly, 0);
  {
    StdoutRedirect redirect(readOnly);
    console.SetColor(Console::Color::Red);
  }
  ::close(readOnly);
  EXPECT_EQ(SyslogCapture::Records(), Records({
                                          {LOG_ERR, "write target size [5] real size [-1]\n"}
  }));
}

}  // namespace
}  // namespace zel::cli::test
