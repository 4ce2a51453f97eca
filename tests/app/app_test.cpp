#include "tests/app/app_test.h"

#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "kdx_test_paths.h"
#include "tests/support/syslog_file.h"
#include "tests/support/wait_until.h"

namespace zel::app::test {
namespace {

// Pads `text` with blanks to `width` characters; nothing is ever cut.
std::string Padded(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string HelpRow(const std::string& name, const std::string& explain, const std::string& usage) {
  return Padded(name, 17) + "\t" + Padded(explain, 40) + "\t" + usage + "\r\n";
}

}  // namespace

const char kStart[] = "*******************************\r\n kendrivex cli\r\n*******************************\r\nhi>";

std::string OnTerminal(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

std::string HelpTable() {
  return HelpRow("cmd:", "explain:", "usage:") + HelpRow("help", "show commands list", "help") +
         HelpRow("exit", "exit program", "exit") + HelpRow("quit", "quit program", "quit") +
         HelpRow("send_ping", "send ping message to get 'PONG' response", "send_ping") +
         HelpRow("atcmd_wlanapclist", "get all connected station for wifi AP", "atcmd_wlanapclist") +
         HelpRow("atcmd_wlanmac", "get wif AP's mac address", "atcmd_wlanmac");
}

std::string EraseLine(size_t length) {
  return std::string(length, '\b') + std::string(length, ' ') + std::string(length, '\b') + std::string(1, '\0');
}

LogRecord UnknownKey(unsigned byte) {
  char hex[8];
  std::snprintf(hex, sizeof hex, "%x", byte);
  return LogRecord{LOG_WARNING,
                   "void zel::cli::Console::GetKeyInfoFromAscii(char, zel::cli::Console::KeyInfo*) 160: "
                   "GetKeyInfoFromAscii 160 : unknown key [0x" +
                       std::string(hex) + "] found"};
}

void AppTest::StartSim(const std::vector<std::string>& options) {
  sim = std::make_unique<SimProcess>(KDX_SIM_PATH, ServicePath(), dir.File("sim.log"), dir.File("sim.syslog"), options);
  ASSERT_TRUE(sim->WaitUntilServing()) << ::zel::test::Printable(sim->Process().Output());
}

void AppTest::StartFake() {
  fake = std::make_unique<FakeService>(ServicePath());
  fake->Script(4, FakeService::Answer::Reply("1"));
  fake->Script(5, FakeService::Answer::Reply("1"));
}

void AppTest::StartClient(std::optional<std::vector<std::string>> args, PtyProcess::Options options) {
  std::vector<std::string> argv = {KDX_CLI_PATH};
  const std::vector<std::string> given = args ? *args : std::vector<std::string>{ServicePath(), dir.path()};
  argv.insert(argv.end(), given.begin(), given.end());
  const std::vector<std::string> capture = ::zel::test::SyslogCaptureEnv(SyslogFile());
  options.env.insert(options.env.end(), capture.begin(), capture.end());
  options.env.insert(options.env.end(), clientEnv.begin(), clientEnv.end());
  client = std::make_unique<PtyProcess>(argv, options);
}

void AppTest::StartSession(std::optional<std::vector<std::string>> args, PtyProcess::Options options) {
  StartClient(std::move(args), std::move(options));
  ASSERT_TRUE(client->WaitForOutput(kStart)) << ::zel::test::Printable(client->Output());
  ASSERT_TRUE(client->WaitForKeyRead());
  ASSERT_EQ(::zel::test::Printable(client->TakeOutput()), ::zel::test::Printable(kStart));
}

void AppTest::Expect(const std::string& keys, const std::string& expected) {
  ASSERT_TRUE(client->Type(keys));
  ExpectShown(expected);
}

void AppTest::ExpectShown(const std::string& expected) {
  EXPECT_TRUE(client->WaitForOutput(expected)) << ::zel::test::Printable(client->Output());
  EXPECT_TRUE(client->WaitForKeyRead());
  EXPECT_EQ(::zel::test::Printable(client->TakeOutput()), ::zel::test::Printable(expected));
}

void AppTest::ExpectEnd(const std::string& keys, const std::string& expected, int code) {
  ASSERT_TRUE(client->Type(keys));
  const std::optional<int> status = client->WaitForExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(PtyProcess::ExitCode(*status), code);
  EXPECT_EQ(::zel::test::Printable(client->TakeOutput()), ::zel::test::Printable(expected));
}

int AppTest::RunToEnd(const std::vector<std::string>& args, std::string& output) {
  StartClient(args);
  const std::optional<int> status = client->WaitForExit();
  output = client->Output();
  return status ? PtyProcess::ExitCode(*status) : -2;
}

std::string AppTest::ClientPath(int slot) const {
  return dir.path() + "/ipc_client-" + std::to_string(client ? client->Pid() : 0) + "-" + std::to_string(slot);
}

void AppTest::ExpectOnlyRegistrationAndUnregistration() {
  ASSERT_TRUE(sim->WaitForRequests(2));
  std::vector<std::string> texts;
  for (const SimProcess::Request& request : sim->Requests()) texts.push_back(request.text);
  EXPECT_EQ(texts, (std::vector<std::string>{Registration(), Unregistration()}));
}

std::vector<LogRecord> AppTest::UnknownKeyRecords() const {
  const std::string marker = "GetKeyInfoFromAscii 160 : unknown key [";
  std::vector<LogRecord> found;
  for (const LogRecord& record : Records()) {
    if (record.text.find(marker) != std::string::npos) found.push_back(record);
  }
  return found;
}

void AppTest::SignalAtThePrompt(int signo) {
  ASSERT_TRUE(client->WaitForKeyRead());
  ASSERT_TRUE(WaitUntilBlockedInPoll());
  client->Signal(signo);
}

void AppTest::AllowPrintingSignalHandler() {
  const char* tsan = std::getenv("TSAN_OPTIONS");
  clientEnv.push_back("TSAN_OPTIONS=" + std::string(tsan != nullptr ? tsan : "") +
                      (tsan != nullptr && *tsan != '\0' ? ":" : "") + "report_signal_unsafe=0");
}

std::vector<LogRecord> AppTest::Records() const { return ::zel::test::ReadSyslogFile(SyslogFile()); }

bool AppTest::WaitForRecord(const LogRecord& record) const {
  return ::zel::test::WaitForSyslogRecord(SyslogFile(), record);
}

bool AppTest::WaitUntilBlockedInPoll() const {
  // poll and select both sleep in the kernel's poll_schedule_timeout (an
  // emulated program's calls are made by the emulator's same thread).
  const std::string wchan = "/proc/" + std::to_string(client->Pid()) + "/wchan";
  return ::zel::test::WaitUntil([&wchan] {
    std::string where;
    std::ifstream(wchan) >> where;
    return where.compare(0, 21, "poll_schedule_timeout") == 0;
  });
}

}  // namespace zel::app::test
