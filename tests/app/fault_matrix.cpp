#include "tests/app/fault_matrix.h"

#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "kdx_test_paths.h"

namespace zel::app::test {

const char kReconnectText[] = "bool zel::ipc::IPCClient::Reconnect(const std::string&, ssize_t)";
const char kSendWhenWritableText[] = "bool zel::ipc::IPCClient::SendWhenWritable(const std::string&, ssize_t&)";
const char kSendFormatStringText[] = "zel::ipc::IPCResult zel::ipc::IPCClient::SendFormatString(std::string)";

std::string SanitizerOptionsWith(const char* variable, const std::string& option) {
  const char* options = std::getenv(variable);
  const std::string current = options != nullptr ? options : "";
  return std::string(variable) + "=" + current + (current.empty() ? "" : ":") + option;
}

std::vector<std::string> FaultMatrixTest::ClientFilesLeft() const {
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, 11, "ipc_client-") == 0) left.push_back(name);
  }
  return left;
}

size_t FaultMatrixTest::ClientDescriptors() const {
  const std::string fds = "/proc/" + std::to_string(client->Pid()) + "/fd";
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(fds), {}));
}

long FaultMatrixTest::ClientRssKb() const {
  std::ifstream status("/proc/" + std::to_string(client->Pid()) + "/status");
  std::string field;
  while (status >> field) {
    long kb = 0;
    if (field == "VmRSS:" && status >> kb) return kb;
  }
  return -1;
}

void FaultMatrixTest::KillSim() {
  sim->Process().Signal(SIGKILL);
  ASSERT_TRUE(sim->Process().WaitForExit().has_value());
}

void FaultMatrixTest::RestartSim(const std::vector<std::string>& options) {
  const std::string n = std::to_string(++simStarts);
  sim = std::make_unique<SimProcess>(KDX_SIM_PATH, ServicePath(), dir.File("sim" + n + ".log"),
                                     dir.File("sim" + n + ".syslog"), options);
  ASSERT_TRUE(sim->WaitUntilServing()) << ::zel::test::Printable(sim->Process().Output());
}

void FaultMatrixTest::ExpectCleanExit() {
  ExpectEnd("exit\r", "exit\r\n");
  EXPECT_TRUE(ClientFilesLeft().empty()) << ::testing::PrintToString(ClientFilesLeft());
}

size_t FaultMatrixTest::Count(const LogRecord& record) const {
  const std::vector<LogRecord> records = Records();
  return static_cast<size_t>(std::count(records.begin(), records.end(), record));
}

LogRecord FaultMatrixTest::Reconnected(ssize_t sent) const {
  return {LOG_WARNING, std::string(kReconnectText) + " 293: service at [" + ServicePath() + "] gone (send [" +
                           std::to_string(sent) + "]), reconnected\n"};
}

LogRecord FaultMatrixTest::NotReconnected(ssize_t sent) const {
  return {LOG_WARNING, std::string(kReconnectText) + " 288: service at [" + ServicePath() + "] gone (send [" +
                           std::to_string(sent) + "]), cannot reconnect\n"};
}

}  // namespace zel::app::test
