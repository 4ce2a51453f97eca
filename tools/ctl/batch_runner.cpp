#include "tools/ctl/batch_runner.h"

#include <cstdlib>

#include "tools/ctl/client_supply.h"
#include "tools/ctl/command_request.h"
#include "tools/ctl/request_runner.h"

namespace zel::ctl {
namespace {

const char kBlanks[] = " \t";

// The lines of a stream through POSIX getline, whose buffer it owns.
class LineReader {
 public:
  explicit LineReader(FILE* input) : mInput(input) {}
  ~LineReader() { std::free(mBuffer); }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // The next line without its line end; false at the end of input. A line
  // from a file in Windows form loses its carriage return too.
  bool Next(std::string& line) {
    const ssize_t length = ::getline(&mBuffer, &mCapacity, mInput);
    if (length < 0) return false;
    line.assign(mBuffer, static_cast<size_t>(length));
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
  }

 private:
  FILE* mInput;
  char* mBuffer = nullptr;
  size_t mCapacity = 0;
};

bool Skipped(const std::vector<std::string>& words) { return words.empty() || words[0][0] == '#'; }

}  // namespace

std::vector<std::string> BatchRunner::Words(const std::string& line) {
  std::vector<std::string> words;
  size_t start = line.find_first_not_of(kBlanks);
  while (start != std::string::npos) {
    const size_t end = line.find_first_of(kBlanks, start);
    words.push_back(line.substr(start, end - start));
    start = end == std::string::npos ? end : line.find_first_not_of(kBlanks, end);
  }
  return words;
}

int BatchRunner::Run(FILE* input) {
  ClientSupply supply(mSettings);
  RequestRunner runner(mSettings, supply, mOutput);
  LineReader reader(input);
  int firstFailure = kStatusOk;
  size_t number = 0;
  std::string line;
  while (!mOutput.Broken() && reader.Next(line)) {
    ++number;
    const std::vector<std::string> words = Words(line);
    if (Skipped(words)) continue;
    const std::string where = "line " + std::to_string(number) + ": ";
    CommandRequest request;
    Failure failure;
    int status = kStatusOk;
    if (!CommandRequest::Parse(words, request, failure)) {
      status = failure.status;
    } else if (!request.entry->inBatch) {
      failure = Fail(kStatusUsage, request.typed, "not on a line of standard input");
      status = failure.status;
    } else {
      status = runner.Run(request, where);
    }
    if (failure.status != kStatusOk) {
      failure.what = where + failure.what;
      Output::Report(failure);
    }
    if (firstFailure == kStatusOk) firstFailure = status;
  }
  return firstFailure;
}

}  // namespace zel::ctl
