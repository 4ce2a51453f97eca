// A session whose standard input ends (the null device, a pipe whose writer
// has gone, or no standard input at all) ends as "exit" does, with status 0:
// the key read that meets the end logs its one unknown-key warning, the
// service hears the unregistration and the socket files go. Standard input
// is not a terminal here, so the banner and the prompt are all the output.
#include <optional>
#include <string>
#include <vector>

#include "tests/app/fault_matrix.h"

namespace zel::app::test {
namespace {

// One kind of standard input that has ended, and the byte that the key read
// meeting its end yields: 0xff for a read that returns nothing, 0 for a
// hang-up reported by poll.
struct EndedInput {
  const char* name;
  PtyProcess::Input input;
  const char* path;
  unsigned byte;
};

void PrintTo(const EndedInput& input, std::ostream* os) { *os << input.name; }

class EndOfInputTest : public FaultMatrixTest, public ::testing::WithParamInterface<EndedInput> {
 protected:
  // Runs the program against the simulator with the parameter's standard
  // input until it ends by itself; false when it does not.
  bool RunToTheEnd() {
    StartSim();
    if (HasFatalFailure()) return false;
    PtyProcess::Options options;
    options.input = GetParam().input;
    options.inputPath = GetParam().path;
    StartClient(std::nullopt, options);
    status = client->WaitForExit();
    return status.has_value();
  }

  std::optional<int> status;
};

TEST_P(EndOfInputTest, EndsWithStatus0AfterTheBannerAndThePrompt) {
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(PtyProcess::ExitCode(*status), 0);
  EXPECT_EQ(client->Output(), kStart);
}

TEST_P(EndOfInputTest, SendsTheUnregistration) {
  ASSERT_TRUE(RunToTheEnd());
  ExpectOnlyRegistrationAndUnregistration();
}

TEST_P(EndOfInputTest, LeavesNoSocketFileBehind) {
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(ClientFilesLeft(), std::vector<std::string>());
}

TEST_P(EndOfInputTest, LogsOneUnknownKeyWarning) {
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(UnknownKeyRecords(), std::vector<LogRecord>{UnknownKey(GetParam().byte)});
}

INSTANTIATE_TEST_SUITE_P(Inputs, EndOfInputTest,
                         ::testing::Values(EndedInput{"NullDevice", PtyProcess::Input::File, "/dev/null", 0xff},
                                           EndedInput{"EndedPipe", PtyProcess::Input::EndedPipe, "", 0},
                                           EndedInput{"Closed", PtyProcess::Input::Closed, "", 0xff}),
                         [](const ::testing::TestParamInfo<EndedInput>& info) { return info.param.name; });

}  // namespace
}  // namespace zel::app::test
