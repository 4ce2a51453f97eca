// The fixture of the end-to-end tests: the real program on its own pseudo-
// terminal, with its system log captured in a file, against the device-service
// simulator (a real program too) or a scripted fake service in this process.
// Everything lives in one fresh directory per test: the service's socket, the
// client's sockets, the logs. One thread at a time.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/fake_service.h"
#include "tests/support/log_record.h"
#include "tests/support/pty_process.h"
#include "tests/support/sim_process.h"
#include "tests/support/temp_dir.h"

namespace zel::app::test {

using ::zel::test::FakeService;
using ::zel::test::LogRecord;
using ::zel::test::PtyProcess;
using ::zel::test::SimProcess;
using ::zel::test::TempDir;

// What the keys send on a terminal.
namespace keys {
inline constexpr char kUp[] = "\x1b[A";
inline constexpr char kDown[] = "\x1b[B";
inline constexpr char kTab[] = "\t";
inline constexpr char kEnter[] = "\r";
}  // namespace keys

// The banner and the first prompt as the terminal shows them.
extern const char kStart[];

// Text as it arrives through the terminal: "\n" becomes "\r\n".
std::string OnTerminal(const std::string& text);
// What "help" prints with the program's six commands, on the terminal.
std::string HelpTable();
// What the line editor writes to erase a line of `length` characters.
std::string EraseLine(size_t length);
// The console's warning for a key byte it does not know.
LogRecord UnknownKey(unsigned byte);

class AppTest : public ::testing::Test {
 protected:
  std::string ServicePath() const { return dir.File("svc"); }
  std::string SyslogFile() const { return dir.File("syslog"); }

  // The simulator, serving at ServicePath() with `options`.
  void StartSim(const std::vector<std::string>& options = {});
  // The fake service at ServicePath(), accepting registrations and
  // unregistrations; other commands go unanswered until scripted.
  void StartFake();

  // Starts the program with `args` (by default the service's path and the
  // directory) and its system log captured.
  void StartClient(std::optional<std::vector<std::string>> args = std::nullopt,
                   PtyProcess::Options options = PtyProcess::Options());
  // Starts it and expects the banner and the first prompt, at which the
  // program then waits for a key.
  void StartSession(std::optional<std::vector<std::string>> args = std::nullopt,
                    PtyProcess::Options options = PtyProcess::Options());

  // Types the keys and expects exactly `expected` back, after which the
  // program waits for the next key.
  void Expect(const std::string& keys, const std::string& expected);
  // Expects exactly `expected` written since the last check, after which
  // the program waits for a key.
  void ExpectShown(const std::string& expected);
  // Types the keys and expects the program to end with `code` after
  // writing exactly `expected`.
  void ExpectEnd(const std::string& keys, const std::string& expected, int code = 0);
  // Runs the program with `args` to its end; its exit code (-1 if it did not
  // exit normally), its output in `output`.
  int RunToEnd(const std::vector<std::string>& args, std::string& output);

  // The client's socket paths in the test's directory for a slot.
  std::string ClientPath(int slot = 0) const;
  std::string EventPath(int slot = 0) const { return ClientPath(slot) + "-event"; }
  std::string Registration(int slot = 0) const { return "4\t" + EventPath(slot); }
  std::string Unregistration(int slot = 0) const { return "5\t" + EventPath(slot); }

  // Expects that the simulator saw the registration, then the
  // unregistration, and no other request.
  void ExpectOnlyRegistrationAndUnregistration();
  // The unknown-key warnings that the program logged.
  std::vector<LogRecord> UnknownKeyRecords() const;

  // The program's signal handler prints with printf, as it is meant to; the
  // thread sanitizer would report that as a signal-unsafe call and stop it.
  void AllowPrintingSignalHandler();

  std::vector<LogRecord> Records() const;
  bool WaitForRecord(const LogRecord& record) const;
  // Waits until the program's main thread sleeps in poll or select (the key
  // read, or the wait for a reply), so that a signal sent now interrupts it.
  bool WaitUntilBlockedInPoll() const;
  // Sends the signal while the program waits for a key at the prompt.
  void SignalAtThePrompt(int signo);

  // Environment entries for every start of the program.
  std::vector<std::string> clientEnv;
  TempDir dir;
  std::unique_ptr<SimProcess> sim;
  std::unique_ptr<FakeService> fake;
  std::unique_ptr<PtyProcess> client;
};

}  // namespace zel::app::test
