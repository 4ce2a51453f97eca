// The options of a front end: a table that declares them, one row of data
// each; the command line read against it with getopt_long, up to the first
// word that is not an option, as often as the front end asks (so that options
// may follow a subcommand); the configuration files of "name = value" lines
// that -c names; the defaults from the environment; and the rows of the help
// text. Rows that several front ends share (the service and the directory,
// the broker connection, -c, -v, -h, -V) are written once here and given the
// front end's own id. What a value means is the front end's business: each
// goes to its handler, which checks and keeps it; the core checks only the
// form (known names, values present, yes or no for a flag in a file).
//
// Threading: main thread only, before any other thread starts (getopt_long
// keeps global state). A CommandLine keeps pointers to the words it reads,
// which must outlive it (main's argv does).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/service_client/commands.h"
#include "tools/service_client/failure.h"

namespace zel::service_client {

// What an option may do beyond the command line, as bits of Option::traits.
enum OptionTrait : uint8_t {
  kCommandLineOnly = 0,
  kInConfigFile = 1U << 0,     // a configuration file may set it, by its long name
  kRepeatable = 1U << 1,       // may be given again: a flag counts (-v -v), each value is handed on (--box A --box B)
  kNamesConfigFile = 1U << 2,  // its value names a configuration file to read (-c)
};

// One row of a table; its fields are ordered so that a row takes five words
// of the device's memory.
struct Option {
  int16_t id;             // the front end's own; rows handed on by long name may share one
  char shortName;         // 0 for none
  uint8_t traits;         // OptionTrait bits
  const char* longName;   // without the leading "--"; also its name in a configuration file
  const char* valueName;  // the value as the help text shows it; nullptr for a flag
  const char* summary;    // what it does, for the help text
  // Its value when neither the command line nor a file gives one: words
  // separated by a blank, each "$NAME" (that environment variable, unless
  // unset or empty) or the value itself; the first that gives a value wins.
  // nullptr for none.
  const char* defaults;
};

// A front end's table: a view of constant data.
struct OptionList {
  const Option* first;
  size_t count;

  // Implicit, so that a table is passed as it stands.
  template <size_t N>
  constexpr OptionList(const Option (&rows)[N]) : first(rows), count(N) {}
  const Option* begin() const { return first; }
  const Option* end() const { return first + count; }
};

// The rows that front ends share. The broker connection's rows (Broker to
// PasswordFile) are the MQTT layer's to judge: a front end gives them one id
// and hands each value on by the row's long name.
enum class SharedOption : uint8_t {
  Service,
  Dir,
  Broker,
  Prefix,
  CaFile,
  CaPath,
  Cert,
  Key,
  Username,
  PasswordFile,
  Config,
  Verbose,
  Help,
  Version,
};

// In the order of SharedOption; their ids are given by Shared().
// clang-format off
inline constexpr Option kSharedOptions[] = {
    {0, 's', kInConfigFile,                 "service",       "PATH",  "the service's socket (default $KENDRIVEX_SERVICE)",
     "$KENDRIVEX_SERVICE"},
    {0, 'd', kInConfigFile,                 "dir",           "DIR",   "where the sockets go ($KENDRIVEX_DIR, $TMPDIR or /tmp)",
     "$KENDRIVEX_DIR $TMPDIR /tmp"},
    {0, 'b', kInConfigFile,                 "broker",        "URL",
     "mqtt[s]://HOST[:PORT] ($KENDRIVEX_BROKER or mqtt://localhost:1883)", "$KENDRIVEX_BROKER mqtt://localhost:1883"},
    {0, 'p', kInConfigFile,                 "prefix",        "TOPIC", "the first part of every topic (default kendrivex)",  nullptr},
    {0, 0,   kInConfigFile,                 "cafile",        "FILE",  "mqtts: the authorities that vouch for the broker",   nullptr},
    {0, 0,   kInConfigFile,                 "capath",        "DIR",   "mqtts: a directory of them (default: the system's)", nullptr},
    {0, 0,   kInConfigFile,                 "cert",          "FILE",  "mqtts: the client's own certificate",                nullptr},
    {0, 0,   kInConfigFile,                 "key",           "FILE",  "mqtts: its private key",                             nullptr},
    {0, 0,   kInConfigFile,                 "username",      "NAME",  "the user name given to the broker",                  nullptr},
    {0, 0,   kInConfigFile,                 "password-file", "FILE",  "the password: the first line of FILE",               nullptr},
    {0, 'c', kRepeatable | kNamesConfigFile, "config",       "FILE",  "read options from FILE: name = value lines",         nullptr},
    {0, 'v', kInConfigFile | kRepeatable,   "verbose",       nullptr, "copy the diagnostics to standard error",             nullptr},
    {0, 'h', kCommandLineOnly,              "help",          nullptr, "print this help and exit",                           nullptr},
    {0, 'V', kCommandLineOnly,              "version",       nullptr, "print the version and exit",                         nullptr},
};
// clang-format on

// A shared row with the front end's id, for its table.
constexpr Option Shared(SharedOption which, int id) noexcept {
  Option row = kSharedOptions[static_cast<size_t>(which)];
  row.id = static_cast<int16_t>(id);
  return row;
}

// What a front end does with its options' values.
class OptionHandler {
 public:
  // Takes `value` for `option` (a row with a value; flags are counted, see
  // CommandLine::Level); false with the reason when the value does not fit.
  // The reason quotes the value through Shown() where it quotes it at all.
  virtual bool Take(const Option& option, const std::string& value, std::string& why) = 0;

 protected:
  ~OptionHandler() = default;
};

// One reading of a command line against a table.
class CommandLine {
 public:
  // A configuration file's line may be at most this long, its whole at most
  // kMaxConfigFile: what is read stays bounded whatever the path names.
  static constexpr size_t kMaxConfigLine = 65536;
  static constexpr size_t kMaxConfigFile = 1048576;

  CommandLine(OptionList options, int argc, char** argv) : mOptions(options), mArgc(argc), mArgv(argv) {}

  // Reads options from the word at `at` on, up to the first word that is not
  // one or after "--"; `at` is then that word's index (argc when none is
  // left). False with a usage failure for an unknown option, a missing value
  // or a value given to a flag.
  bool ReadOptions(int& at, Failure& failure);
  // Reads every word after the program's name as an option; any other word
  // is a usage failure too.
  bool ReadOnlyOptions(Failure& failure);

  // Reads the configuration files that the command line names, in order,
  // and checks each line: blank or a comment ('#' to the end of the line),
  // or "name = value" with the long name of an option that a file may set
  // (blanks around both, and a carriage return at the end, do not count); a
  // flag takes yes or no (true/false, on/off, 1/0). False with a usage
  // failure "<path>:<line>: ..." for the first wrong line, "<path>: ..." for
  // a file that cannot be read (a directory, say) or is too large. Nothing
  // is taken yet.
  bool ReadConfigFiles(Failure& failure);

  // Hands the values to `handler` in this order, so that later ones win: the
  // defaults of the rows that neither the command line nor a file gives,
  // then the files' values, then the command line's. A repeatable option
  // that the command line gives takes none of the files' values. False with
  // a usage failure naming the value's place: "<path>:<line>: <name>: why",
  // "<typed option>: why" or "<environment variable>: why".
  bool Apply(OptionHandler& handler, Failure& failure);

  // A flag's level: how often the command line gave it (-v -v: 2), else what
  // the last file line said of it (yes: 1), else 0. The command line's part
  // is known after reading it, the files' after ReadConfigFiles.
  unsigned Level(int id) const;
  // The option as the command line last gave it ("-n" or "--count"); empty
  // when it did not.
  std::string Typed(int id) const;

 private:
  struct Given {
    size_t row;
    const char* value;  // nullptr for a flag
    bool typedLong;
  };
  struct FileValue {
    size_t row;
    std::string value;
    std::string where;  // "<path>:<line>"
    unsigned level;     // a flag's: 1 for yes, 0 for no
  };

  bool ReadConfigFile(const char* path, Failure& failure);
  bool TakeConfigLine(const std::string& where, const std::string& line, Failure& failure);
  bool OnCommandLine(size_t row) const;
  bool InFiles(size_t row) const;
  std::string TypedAs(const Given& given) const;

  OptionList mOptions;
  int mArgc;
  char** mArgv;
  std::vector<Given> mGiven;           // the command line's options, in order
  std::vector<FileValue> mFileValues;  // the files' lines that set something, in order
};

// The table's rows as the help text shows them: "-s, --service PATH", or
// "    --allow LIST" for an option without a short name.
std::vector<HelpRow> OptionRows(OptionList options);

// The usage failure of a front end that needs the service and was given
// none; false then.
bool CheckServiceGiven(const std::string& servicePath, Failure& failure);

}  // namespace zel::service_client
