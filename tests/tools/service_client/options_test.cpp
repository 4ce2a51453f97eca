// A front end's options read against a table in process: the command line
// and its own errors, options after a subcommand, repeated options, the
// defaults from the environment, the configuration files with every error
// and their bounds, the order in which values are taken, and the help rows.
#include "tools/service_client/options.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace zel::service_client {
namespace {

// The rows of a front end like the fleet's: shared ones, the connection's
// under one id, and its own.
enum TestOptionId : int { kService, kDir, kConnection, kCount, kBox, kQueue, kJson, kConfig, kVerbose, kHelp };

// clang-format off
constexpr Option kTestOptions[] = {
    Shared(SharedOption::Service, kService),
    Shared(SharedOption::Dir, kDir),
    Shared(SharedOption::Broker, kConnection),
    Shared(SharedOption::Prefix, kConnection),
    {kCount, 'n', kInConfigFile, "count", "N",     "stop after N",     nullptr},
    {kBox,   0,   kInConfigFile | kRepeatable, "box", "ID", "this box only", nullptr},
    {kQueue, 0,   kInConfigFile, "queue", "N",     "keep N",           nullptr},
    {kJson,  'j', kCommandLineOnly, "json", nullptr, "print JSON",     nullptr},
    Shared(SharedOption::Config, kConfig),
    Shared(SharedOption::Verbose, kVerbose),
    Shared(SharedOption::Help, kHelp),
};
// clang-format on

// Keeps every value it is handed as "name=value", in order; refuses "bad".
class RecordingHandler final : public OptionHandler {
 public:
  bool Take(const Option& option, const std::string& value, std::string& why) override {
    if (value == "bad") {
      why = "not good: \"" + value + "\"";
      return false;
    }
    taken.push_back(std::string(option.longName) + "=" + value);
    return true;
  }

  std::vector<std::string> taken;
};

class OptionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The environment of the test run must not count.
    for (const char* name : {"KENDRIVEX_SERVICE", "KENDRIVEX_DIR", "KENDRIVEX_BROKER"}) SetEnv(name, "");
    SetEnv("TMPDIR", "/var/tmp");
  }

  // Sets an environment variable for this test; empty is as good as unset.
  static void SetEnv(const char* name, const char* value) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): these tests start no thread
    ASSERT_EQ(::setenv(name, value, 1), 0);
  }

  // A command line of `words` after the program's name, kept for as long as
  // the test runs.
  CommandLine& Line(std::vector<std::string> words) {
    mWords = std::move(words);
    mWords.insert(mWords.begin(), "kdx-test");
    mArgv.clear();
    for (std::string& word : mWords) mArgv.push_back(word.data());
    mArgv.push_back(nullptr);
    mLine = std::make_unique<CommandLine>(kTestOptions, static_cast<int>(mWords.size()), mArgv.data());
    return *mLine;
  }

  // Reads `words` as a front end without subcommands does: only options,
  // then the files, then the values.
  bool Parse(const std::vector<std::string>& words) {
    CommandLine& line = Line(words);
    return line.ReadOnlyOptions(failure) && line.ReadConfigFiles(failure) && line.Apply(handler, failure);
  }

  // The usage error line of `words`.
  std::string Error(const std::vector<std::string>& words) {
    EXPECT_FALSE(Parse(words));
    EXPECT_EQ(failure.status, kStatusUsage);
    return failure.what + ": " + failure.why;
  }

  std::string WriteFile(const std::string& name, const std::string& text) {
    std::string path = dir.File(name);
    std::ofstream(path) << text;
    return path;
  }

  // What the handler was given besides the defaults of the directory and
  // the broker.
  std::vector<std::string> TakenBeyondDefaults() const {
    std::vector<std::string> taken;
    for (const std::string& value : handler.taken) {
      if (value != "dir=/var/tmp" && value != "broker=mqtt://localhost:1883") taken.push_back(value);
    }
    return taken;
  }

  ::zel::test::TempDir dir;
  RecordingHandler handler;
  Failure failure;

 private:
  std::vector<std::string> mWords;
  std::vector<char*> mArgv;
  std::unique_ptr<CommandLine> mLine;
};

using Values = std::vector<std::string>;

TEST_F(OptionsTest, ShortAndLongOptionsHandTheirValuesOnInOrder) {
  ASSERT_TRUE(Parse({"-s", "/run/svc", "--dir=/d", "--count", "3", "-n4"}));
  EXPECT_EQ(handler.taken,
            Values({"broker=mqtt://localhost:1883", "service=/run/svc", "dir=/d", "count=3", "count=4"}));
}

TEST_F(OptionsTest, ReadingStopsAtTheFirstWordThatIsNotAnOption) {
  CommandLine& line = Line({"-j", "ls", "-n", "2"});
  int at = 1;
  ASSERT_TRUE(line.ReadOptions(at, failure));
  EXPECT_EQ(at, 2);
  EXPECT_EQ(line.Level(kJson), 1u);
  EXPECT_EQ(line.Typed(kCount), "");
}

TEST_F(OptionsTest, OptionsAfterASubcommandAreReadToo) {
  CommandLine& line = Line({"-j", "watch", "-n", "2", "--box", "b1", "rest"});
  int at = 1;
  ASSERT_TRUE(line.ReadOptions(at, failure));
  ++at;
  ASSERT_TRUE(line.ReadOptions(at, failure));
  EXPECT_EQ(at, 7);
  ASSERT_TRUE(line.Apply(handler, failure));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"count=2", "box=b1"}));
}

TEST_F(OptionsTest, DoubleDashEndsTheOptions) {
  CommandLine& line = Line({"--", "-j"});
  int at = 1;
  ASSERT_TRUE(line.ReadOptions(at, failure));
  EXPECT_EQ(at, 2);
  EXPECT_EQ(line.Level(kJson), 0u);
}

TEST_F(OptionsTest, NoOptionsLeavesTheFirstWord) {
  CommandLine& line = Line({"ls"});
  int at = 1;
  ASSERT_TRUE(line.ReadOptions(at, failure));
  EXPECT_EQ(at, 1);
}

TEST_F(OptionsTest, UnknownShortOptionIsNamedByItsLetter) {
  EXPECT_EQ(Error({"-x"}), "-x: unknown option (try --help)");
  EXPECT_EQ(Error({"-jx"}), "-x: unknown option (try --help)");
}

TEST_F(OptionsTest, UnknownLongOptionIsNamedWithoutItsValue) {
  EXPECT_EQ(Error({"--bogus=1"}), "--bogus: unknown option (try --help)");
}

TEST_F(OptionsTest, MissingValueOfAShortOptionIsAUsageError) {
  EXPECT_EQ(Error({"-s"}), "-s: needs a value");
  EXPECT_EQ(Error({"-js"}), "-s: needs a value");
}

TEST_F(OptionsTest, MissingValueOfALongOptionIsAUsageError) {
  EXPECT_EQ(Error({"--queue"}), "--queue: needs a value");
  EXPECT_EQ(Error({"-j", "--service"}), "--service: needs a value");
}

TEST_F(OptionsTest, FlagGivenAValueIsAUsageError) { EXPECT_EQ(Error({"--json=1"}), "--json: takes no value"); }

TEST_F(OptionsTest, WordThatIsNotAnOptionIsAUsageErrorWhereOnlyOptionsAreRead) {
  EXPECT_EQ(Error({"-j", "ping"}), "ping: takes no arguments, only options (try --help)");
}

TEST_F(OptionsTest, CommandLineErrorsComeBeforeFilesAndValues) {
  EXPECT_EQ(Error({"-c", dir.File("none.conf"), "-n", "bad", "--bogus"}), "--bogus: unknown option (try --help)");
}

TEST_F(OptionsTest, RepeatedFlagCountsEachTime) {
  CommandLine& line = Line({"-v", "--verbose", "-vj"});
  ASSERT_TRUE(line.ReadOnlyOptions(failure));
  EXPECT_EQ(line.Level(kVerbose), 3u);
  EXPECT_EQ(line.Level(kJson), 1u);
  EXPECT_EQ(line.Level(kHelp), 0u);
}

TEST_F(OptionsTest, RepeatedValuesAreEachHandedOn) {
  ASSERT_TRUE(Parse({"--box", "b1", "--box=b2"}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"box=b1", "box=b2"}));
}

TEST_F(OptionsTest, TypedNamesTheOptionAsItWasLastGiven) {
  CommandLine& line = Line({"-n", "1", "--count", "2", "--queue", "3"});
  ASSERT_TRUE(line.ReadOnlyOptions(failure));
  EXPECT_EQ(line.Typed(kCount), "--count");
  EXPECT_EQ(line.Typed(kQueue), "--queue");
  EXPECT_EQ(line.Typed(kBox), "");
  CommandLine& other = Line({"--count", "1", "-n", "2"});
  ASSERT_TRUE(other.ReadOnlyOptions(failure));
  EXPECT_EQ(other.Typed(kCount), "-n");
}

TEST_F(OptionsTest, ValueThatDoesNotFitNamesTheOptionAsTyped) {
  EXPECT_EQ(Error({"--count", "bad"}), "--count: not good: \"bad\"");
  EXPECT_EQ(Error({"-n", "bad"}), "-n: not good: \"bad\"");
}

TEST_F(OptionsTest, DefaultComesFromTheFirstEnvironmentVariableThatIsSet) {
  SetEnv("KENDRIVEX_SERVICE", "/env/svc");
  ASSERT_TRUE(Parse({}));
  EXPECT_EQ(handler.taken, Values({"service=/env/svc", "dir=/var/tmp", "broker=mqtt://localhost:1883"}));
}

TEST_F(OptionsTest, EmptyEnvironmentVariableCountsAsUnset) {
  SetEnv("KENDRIVEX_DIR", "");
  SetEnv("TMPDIR", "");
  ASSERT_TRUE(Parse({}));
  EXPECT_EQ(handler.taken, Values({"dir=/tmp", "broker=mqtt://localhost:1883"}));
}

TEST_F(OptionsTest, BrokerComesFromItsEnvironmentVariable) {
  SetEnv("KENDRIVEX_BROKER", "mqtts://fleet:8883");
  ASSERT_TRUE(Parse({}));
  EXPECT_EQ(handler.taken, Values({"dir=/var/tmp", "broker=mqtts://fleet:8883"}));
}

TEST_F(OptionsTest, DefaultThatDoesNotFitNamesItsVariable) {
  SetEnv("KENDRIVEX_BROKER", "bad");
  EXPECT_EQ(Error({}), "KENDRIVEX_BROKER: not good: \"bad\"");
}

TEST_F(OptionsTest, DefaultIsNotLookedAtWhenTheCommandLineGivesTheOption) {
  SetEnv("KENDRIVEX_BROKER", "bad");
  ASSERT_TRUE(Parse({"-b", "mqtt://h"}));
  EXPECT_EQ(handler.taken, Values({"dir=/var/tmp", "broker=mqtt://h"}));
}

TEST_F(OptionsTest, DefaultIsNotLookedAtWhenAFileGivesTheOption) {
  SetEnv("KENDRIVEX_BROKER", "bad");
  ASSERT_TRUE(Parse({"-c", WriteFile("a.conf", "broker = mqtt://file\n")}));
  EXPECT_EQ(handler.taken, Values({"dir=/var/tmp", "broker=mqtt://file"}));
}

TEST_F(OptionsTest, ConfigurationFileSetsOptionsByTheirLongNames) {
  const std::string config =
      WriteFile("a.conf", "# the box\n\n  prefix =  fleet one  # a note\nqueue=5\r\n\tcount\t=\t7\t\n");
  ASSERT_TRUE(Parse({"-c", config}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"prefix=fleet one", "queue=5", "count=7"}));
}

TEST_F(OptionsTest, ConfigurationFileMaySetAnEmptyValue) {
  ASSERT_TRUE(Parse({"-c", WriteFile("a.conf", "prefix =\n")}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"prefix="}));
}

TEST_F(OptionsTest, LastLineWithoutALineFeedCounts) {
  ASSERT_TRUE(Parse({"-c", WriteFile("a.conf", "queue = 1\nqueue = 2")}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"queue=1", "queue=2"}));
}

TEST_F(OptionsTest, FlagInAFileTakesYesOrNo) {
  CommandLine& line = Line({"-c", WriteFile("yes.conf", "verbose = no\nverbose = on\n")});
  ASSERT_TRUE(line.ReadOnlyOptions(failure) && line.ReadConfigFiles(failure));
  EXPECT_EQ(line.Level(kVerbose), 1u);
  CommandLine& other = Line({"-c", WriteFile("no.conf", "verbose = true\nverbose = off\n")});
  ASSERT_TRUE(other.ReadOnlyOptions(failure) && other.ReadConfigFiles(failure));
  EXPECT_EQ(other.Level(kVerbose), 0u);
}

TEST_F(OptionsTest, CommandLineFlagWinsOverTheFiles) {
  CommandLine& line = Line({"-c", WriteFile("a.conf", "verbose = yes\n"), "-v", "-v"});
  ASSERT_TRUE(line.ReadOnlyOptions(failure) && line.ReadConfigFiles(failure));
  EXPECT_EQ(line.Level(kVerbose), 2u);
}

TEST_F(OptionsTest, CommandLineValuesComeAfterTheFilesAndSoWin) {
  ASSERT_TRUE(Parse({"--queue", "6", "-c", WriteFile("a.conf", "queue = 5\n")}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"queue=5", "queue=6"}));
}

TEST_F(OptionsTest, FilesAreAppliedInTheOrderGiven) {
  const std::string first = WriteFile("a.conf", "queue = 1\n");
  const std::string second = WriteFile("b.conf", "queue = 2\n");
  ASSERT_TRUE(Parse({"-c", second, "--config", first}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"queue=2", "queue=1"}));
}

TEST_F(OptionsTest, RepeatableOptionOfTheCommandLineReplacesTheFilesValues) {
  const std::string config = WriteFile("a.conf", "box = f1\nbox = f2\n");
  ASSERT_TRUE(Parse({"-c", config, "--box", "c1"}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"box=c1"}));
  handler.taken.clear();
  ASSERT_TRUE(Parse({"-c", config}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"box=f1", "box=f2"}));
}

TEST_F(OptionsTest, EveryFileIsCheckedBeforeAnyValueIsTaken) {
  const std::string first = WriteFile("a.conf", "queue = bad\n");
  const std::string second = WriteFile("b.conf", "bogus = 1\n");
  EXPECT_EQ(Error({"-c", first, "-c", second}), second + ":1: unknown option \"bogus\"");
  EXPECT_TRUE(handler.taken.empty());
}

TEST_F(OptionsTest, UnknownNameInAFileNamesItsLine) {
  const std::string config = WriteFile("a.conf", "queue = 1\nbo\x01gus = 1\n");
  EXPECT_EQ(Error({"-c", config}), config + ":2: unknown option \"bo\\x01gus\"");
}

TEST_F(OptionsTest, OptionOfTheCommandLineOnlyIsUnknownInAFile) {
  EXPECT_EQ(Error({"-c", WriteFile("a.conf", "config = b.conf\n")}),
            dir.File("a.conf") + ":1: unknown option \"config\"");
  EXPECT_EQ(Error({"-c", WriteFile("b.conf", "json = yes\n")}), dir.File("b.conf") + ":1: unknown option \"json\"");
}

TEST_F(OptionsTest, LineWithoutAnEqualsSignIsAnError) {
  EXPECT_EQ(Error({"-c", WriteFile("a.conf", "\n  \nverbose\n")}), dir.File("a.conf") + ":3: not a name = value line");
}

TEST_F(OptionsTest, FlagInAFileThatIsNeitherYesNorNoIsAnError) {
  EXPECT_EQ(Error({"-c", WriteFile("a.conf", "verbose = maybe\n")}),
            dir.File("a.conf") + ":1: verbose: not yes or no: \"maybe\"");
}

TEST_F(OptionsTest, ValueInAFileThatDoesNotFitNamesTheFileLineAndOption) {
  EXPECT_EQ(Error({"-c", WriteFile("a.conf", "# one\nqueue = 1\nqueue = bad\n")}),
            dir.File("a.conf") + ":3: queue: not good: \"bad\"");
}

TEST_F(OptionsTest, MissingFileIsAnError) {
  EXPECT_EQ(Error({"-c", dir.File("none.conf")}), dir.File("none.conf") + ": No such file or directory");
}

TEST_F(OptionsTest, DirectoryIsAnError) { EXPECT_EQ(Error({"-c", dir.path()}), dir.path() + ": Is a directory"); }

TEST_F(OptionsTest, FileThatCannotBeReadIsAnError) {
  // It opens, and the first read fails (even for root).
  EXPECT_EQ(Error({"-c", "/proc/self/mem"}), "/proc/self/mem: Input/output error");
}

TEST_F(OptionsTest, LineOf64KilobytesIsTaken) {
  // "prefix = " and the value: 65536 bytes.
  const std::string value(CommandLine::kMaxConfigLine - 9, 'p');
  ASSERT_TRUE(Parse({"-c", WriteFile("a.conf", "prefix = " + value + "\n")}));
  EXPECT_EQ(TakenBeyondDefaults(), Values({"prefix=" + value}));
}

TEST_F(OptionsTest, LineLongerThan64KilobytesIsAnError) {
  const std::string config =
      WriteFile("a.conf", "queue = 1\n# " + std::string(CommandLine::kMaxConfigLine, 'x') + "\n");
  EXPECT_EQ(Error({"-c", config}), config + ":2: a line longer than 65536 bytes");
}

TEST_F(OptionsTest, EndlessFileWithoutLineFeedsFailsAtItsFirstLine) {
  EXPECT_EQ(Error({"-c", "/dev/zero"}), "/dev/zero:1: a line longer than 65536 bytes");
}

TEST_F(OptionsTest, FileLargerThanAMegabyteIsAnError) {
  std::string text;
  while (text.size() <= CommandLine::kMaxConfigFile) text += "# " + std::string(1000, 'c') + "\n";
  const std::string config = WriteFile("a.conf", text);
  EXPECT_EQ(Error({"-c", config}), config + ": larger than 1048576 bytes");
}

TEST_F(OptionsTest, HelpRowsShowEachSpellingAndTheValue) {
  const std::vector<HelpRow> rows = OptionRows(kTestOptions);
  ASSERT_EQ(rows.size(), sizeof kTestOptions / sizeof kTestOptions[0]);
  EXPECT_EQ(rows[0].left, "-s, --service PATH");
  EXPECT_STREQ(rows[0].summary, "the service's socket (default $KENDRIVEX_SERVICE)");
  EXPECT_EQ(rows[5].left, "    --box ID");
  EXPECT_EQ(rows[7].left, "-j, --json");
  EXPECT_EQ(HelpColumns({rows[5], rows[7]}), "      --box ID  this box only\n  -j, --json    print JSON\n");
}

TEST_F(OptionsTest, SharedRowTakesTheFrontEndsId) {
  constexpr Option row = Shared(SharedOption::PasswordFile, 42);
  EXPECT_EQ(row.id, 42);
  EXPECT_STREQ(row.longName, "password-file");
  EXPECT_EQ(row.shortName, 0);
  EXPECT_EQ(row.traits, kInConfigFile);
}

TEST_F(OptionsTest, MissingServiceIsAUsageError) {
  EXPECT_TRUE(CheckServiceGiven("/run/svc", failure));
  EXPECT_FALSE(CheckServiceGiven("", failure));
  EXPECT_EQ(failure.Line("kdx-test"),
            "kdx-test: --service: no service socket given (use -s PATH or set KENDRIVEX_SERVICE)\n");
}

}  // namespace
}  // namespace zel::service_client
