#include "tools/service_client/options.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "util/decimal_text.h"

// The command line is read first, its own errors (unknown options, missing
// values) reported before anything else; then the configuration files it
// names, each line checked as it is read; only then are values taken, so
// that a file's values are judged only once every file has the right form,
// and the command line's come last and win.
namespace zel::service_client {
namespace {

// getopt_long's value for an option without a short name: past every char.
constexpr int kFirstLongOnly = 256;
// What surrounds a name or a value in a configuration file.
const char kBlanks[] = " \t\r";
// What a configuration file is read in.
constexpr size_t kReadSize = 4096;

const char kUnknownOption[] = "unknown option (try --help)";

// The spellings of a flag's value in a configuration file.
const char* const kYes[] = {"yes", "true", "on", "1"};
const char* const kNo[] = {"no", "false", "off", "0"};

Failure Usage(const std::string& what, std::string why) { return Fail(kStatusUsage, Shown(what), std::move(why)); }

// A word as typed, without any "=value" of a long option.
std::string OptionWord(const char* word) {
  const std::string text = word;
  return text.compare(0, 2, "--") == 0 ? text.substr(0, text.find('=')) : text;
}

// `text` without the blanks (and a carriage return) around it.
std::string Trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(kBlanks);
  if (start == std::string::npos) return std::string();
  return text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

// A flag's value in a configuration file: 1 for yes, 0 for no, 2 for
// neither.
unsigned FlagLevel(const std::string& text) {
  unsigned level = 2;
  for (size_t i = 0; i < sizeof kYes / sizeof kYes[0]; ++i) {
    if (text == kYes[i]) level = 1;
    if (text == kNo[i]) level = 0;
  }
  return level;
}

// What getopt_long returns for the option of row `index`.
int GetoptValue(const OptionList& options, size_t index) {
  const char letter = options.first[index].shortName;
  return letter != 0 ? letter : kFirstLongOnly + static_cast<int>(index);
}

// The value that a row's defaults give, and in `variable` the environment
// variable it came from (left empty when it is the row's own); empty for
// none.
std::string DefaultOf(const Option& option, std::string& variable) {
  for (const char* word = option.defaults; word != nullptr && *word != '\0';) {
    size_t length = 0;
    while (word[length] != '\0' && word[length] != ' ') ++length;
    const size_t skip = *word == '$' ? 1 : 0;
    std::string text;
    text.append(word + skip, length - skip);
    word += word[length] == ' ' ? length + 1 : length;
    if (skip == 0) return text;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read before any other thread starts, and nothing changes it
    const char* value = std::getenv(text.c_str());
    if (value == nullptr || *value == '\0') continue;
    variable = text;
    return value;
  }
  return std::string();
}

}  // namespace

bool CommandLine::ReadOptions(int& at, Failure& failure) {
  // getopt_long's description of the table, ended by a zero entry; "+" stops
  // at the first word that is not an option, ":" reports a missing value
  // apart from an unknown option.
  std::vector<option> longOptions(mOptions.count + 1);
  std::string shortOptions = "+:";
  for (size_t i = 0; i < mOptions.count; ++i) {
    const Option& row = mOptions.first[i];
    const bool takesValue = row.valueName != nullptr;
    longOptions[i] = {row.longName, takesValue ? required_argument : no_argument, nullptr, GetoptValue(mOptions, i)};
    if (row.shortName == 0) continue;
    shortOptions += row.shortName;
    if (takesValue) shortOptions += ':';
  }
  // The words from `at` on, after the program's name, and a null pointer: 0
  // rather than 1 in optind starts getopt afresh, and it starts at the
  // second word.
  const int count = mArgc - at + 1;
  std::vector<char*> words(static_cast<size_t>(count) + 1);
  words[0] = mArgv[0];
  for (int i = 1; i < count; ++i) words[i] = mArgv[at + i - 1];
  opterr = 0;
  optind = 0;
  while (true) {
    int longIndex = -1;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the command line is read on the main thread before any other starts
    const int value = getopt_long(count, words.data(), shortOptions.c_str(), longOptions.data(), &longIndex);
    if (value == -1) break;
    // The row of a value getopt_long returned: a long-only one by its place,
    // a short one by its letter; the table's size when there is none.
    size_t row = mOptions.count;
    const int letter = value == '?' || value == ':' ? optopt : value;
    for (size_t i = 0; i < mOptions.count && letter != 0; ++i) {
      if (letter == GetoptValue(mOptions, i)) row = i;
    }
    if (value == '?' || value == ':') {
      // A missing value can only be the last word's. A short option is known
      // by its letter (an unknown one too), a long one by its word; a known
      // option here with '?' is a flag given a value ("--json=1").
      const bool missing = value == ':';
      std::string word = OptionWord(words[missing ? count - 1 : optind - 1]);
      if (missing ? word.compare(0, 2, "--") != 0 : row == mOptions.count && optopt != 0) {
        word.clear();
        word.append(1, '-').append(1, static_cast<char>(optopt));
      }
      failure = Usage(word, missing ? "needs a value" : row < mOptions.count ? "takes no value" : kUnknownOption);
      return false;
    }
    mGiven.push_back({row, optarg, longIndex >= 0});
  }
  at += optind - 1;
  return true;
}

bool CommandLine::ReadOnlyOptions(Failure& failure) {
  int at = 1;
  if (!ReadOptions(at, failure)) return false;
  if (at >= mArgc) return true;
  failure = Usage(mArgv[at], "takes no arguments, only options (try --help)");
  return false;
}

bool CommandLine::ReadConfigFiles(Failure& failure) {
  for (const Given& given : mGiven) {
    if ((mOptions.first[given.row].traits & kNamesConfigFile) != 0 && !ReadConfigFile(given.value, failure)) {
      return false;
    }
  }
  return true;
}

bool CommandLine::ReadConfigFile(const char* path, Failure& failure) {
  const std::string shownPath = Shown(path, kShownPathLength);
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    failure = Fail(kStatusUsage, shownPath, ErrorText(errno));
    return false;
  }
  // Lines are taken as they end; `pending` holds the start of one that has
  // not yet ended, never more than the longest line allowed.
  std::string pending;
  size_t total = 0;
  size_t number = 1;
  bool ok = true;
  char buffer[kReadSize];
  while (ok) {
    const ssize_t length = ::read(fd, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) {
      failure = Fail(kStatusUsage, shownPath, ErrorText(errno));
      ok = false;
      break;
    }
    if (length == 0) break;
    total += static_cast<size_t>(length);
    if (total > kMaxConfigFile) {
      failure = Fail(kStatusUsage, shownPath, "larger than 1048576 bytes");
      ok = false;
      break;
    }
    for (ssize_t i = 0; ok && i < length; ++i) {
      if (buffer[i] != '\n') {
        pending += buffer[i];
        if (pending.size() <= kMaxConfigLine) continue;
        failure = Fail(kStatusUsage, shownPath + ":" + zel::util::DecimalText(static_cast<uint32_t>(number)),
                       "a line longer than 65536 bytes");
        ok = false;
        continue;
      }
      ok = TakeConfigLine(shownPath + ":" + zel::util::DecimalText(static_cast<uint32_t>(number)), pending, failure);
      pending.clear();
      ++number;
    }
  }
  ::close(fd);
  // The last line may end without a line feed.
  return ok &&
         TakeConfigLine(shownPath + ":" + zel::util::DecimalText(static_cast<uint32_t>(number)), pending, failure);
}

bool CommandLine::TakeConfigLine(const std::string& where, const std::string& line, Failure& failure) {
  const std::string text = Trimmed(line.substr(0, line.find('#')));
  if (text.empty()) return true;
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    failure = Fail(kStatusUsage, where, "not a name = value line");
    return false;
  }
  const std::string name = Trimmed(text.substr(0, equals));
  for (size_t i = 0; i < mOptions.count; ++i) {
    const Option& row = mOptions.first[i];
    if (name != row.longName || (row.traits & kInConfigFile) == 0) continue;
    FileValue setting{i, Trimmed(text.substr(equals + 1)), where, 0};
    if (row.valueName == nullptr) setting.level = FlagLevel(setting.value);
    if (setting.level > 1) {
      failure = Fail(kStatusUsage, where, name + ": not yes or no: \"" + Shown(setting.value) + "\"");
      return false;
    }
    mFileValues.push_back(std::move(setting));
    return true;
  }
  failure = Fail(kStatusUsage, where, "unknown option \"" + Shown(name) + "\"");
  return false;
}

bool CommandLine::Apply(OptionHandler& handler, Failure& failure) {
  std::string why;
  for (size_t i = 0; i < mOptions.count; ++i) {
    const Option& row = mOptions.first[i];
    if (row.valueName == nullptr || OnCommandLine(i) || InFiles(i)) continue;
    std::string variable;
    const std::string value = DefaultOf(row, variable);
    if (value.empty() || handler.Take(row, value, why)) continue;
    failure = Fail(kStatusUsage, variable.empty() ? std::string("--") + row.longName : variable, why);
    return false;
  }
  for (const FileValue& setting : mFileValues) {
    const Option& row = mOptions.first[setting.row];
    if (row.valueName == nullptr || ((row.traits & kRepeatable) != 0 && OnCommandLine(setting.row))) continue;
    if (handler.Take(row, setting.value, why)) continue;
    failure = Fail(kStatusUsage, setting.where, std::string(row.longName) + ": " + why);
    return false;
  }
  for (const Given& given : mGiven) {
    const Option& row = mOptions.first[given.row];
    if (given.value == nullptr || (row.traits & kNamesConfigFile) != 0) continue;
    if (handler.Take(row, given.value, why)) continue;
    failure = Usage(TypedAs(given), why);
    return false;
  }
  return true;
}

unsigned CommandLine::Level(int id) const {
  size_t row = 0;
  while (row < mOptions.count && mOptions.first[row].id != id) ++row;
  unsigned level = 0;
  for (const Given& given : mGiven) level += given.row == row ? 1 : 0;
  if (level > 0) return level;
  for (const FileValue& setting : mFileValues) {
    if (setting.row == row) level = setting.level;
  }
  return level;
}

std::string CommandLine::Typed(int id) const {
  const Given* last = nullptr;
  for (const Given& given : mGiven) {
    if (mOptions.first[given.row].id == id) last = &given;
  }
  return last != nullptr ? TypedAs(*last) : std::string();
}

bool CommandLine::OnCommandLine(size_t row) const {
  for (const Given& given : mGiven) {
    if (given.row == row) return true;
  }
  return false;
}

bool CommandLine::InFiles(size_t row) const {
  for (const FileValue& setting : mFileValues) {
    if (setting.row == row) return true;
  }
  return false;
}

std::string CommandLine::TypedAs(const Given& given) const {
  const Option& row = mOptions.first[given.row];
  std::string typed = given.typedLong ? "--" : "-";
  if (given.typedLong) {
    typed.append(row.longName);
  } else {
    typed.append(1, row.shortName);
  }
  return typed;
}

std::vector<HelpRow> OptionRows(OptionList options) {
  std::vector<HelpRow> rows;
  for (const Option& row : options) {
    std::string left = "    --";
    if (row.shortName != 0) {
      left[0] = '-';
      left[1] = row.shortName;
      left[2] = ',';
    }
    left.append(row.longName);
    if (row.valueName != nullptr) left.append(1, ' ').append(row.valueName);
    rows.push_back({left, row.summary});
  }
  return rows;
}

bool CheckServiceGiven(const std::string& servicePath, Failure& failure) {
  if (!servicePath.empty()) return true;
  failure = Fail(kStatusUsage, "--service", "no service socket given (use -s PATH or set KENDRIVEX_SERVICE)");
  return false;
}

}  // namespace zel::service_client
