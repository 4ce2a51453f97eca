// A pasted line of 100 000 characters is echoed exactly, ignored as an
// unknown word, and the program goes on answering commands.
#include <chrono>
#include <string>

#include "tests/app/fault_matrix.h"

namespace zel::app::test {
namespace {

class LongLineTest : public FaultMatrixTest {};

TEST_F(LongLineTest, PastedLineOf100000CharactersIsEchoedAndTheProgramStaysUsable) {
  StartSim();
  StartSession();
  const size_t descriptors = ClientDescriptors();
  const std::string line(100000, 'x');
  // Between two key reads the terminal is in line mode, where the kernel
  // keeps at most 4095 bytes of a line that has no end yet and drops what
  // comes beyond. The paste therefore arrives in pieces, each while the
  // program waits for a key, and the next once the echo of the last is back.
  constexpr size_t kPiece = 1000;
  for (size_t at = 0; at < line.size(); at += kPiece) {
    ASSERT_TRUE(client->Type(line.substr(at, kPiece)));
    ASSERT_TRUE(client->WaitForOutputSize(at + kPiece, std::chrono::seconds(30)));
  }
  Expect("\r", line + "\r\nhi>");
  Expect("send_ping\r", "send_ping\r\nPING response : PONG\r\nhi>");
  EXPECT_EQ(ClientDescriptors(), descriptors);
  ExpectCleanExit();
}

}  // namespace
}  // namespace zel::app::test
