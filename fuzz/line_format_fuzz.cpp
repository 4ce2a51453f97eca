// Fuzz target: the service's line format. Any text parses the same as a reply
// and as an event, its arguments are its fields after the first, and joining
// its fields gives the text back but for one trailing separator. A request
// formatted from a command number and arguments splits into exactly those
// fields again, except that an empty last field does not survive: a line
// does not end in a separator, so nothing marks an empty field there.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "fuzz/require.h"
#include "ipc/field_split.h"
#include "ipc/ipc_message.h"

namespace {

using namespace zel::ipc;
using zel::fuzz::Require;

constexpr size_t kMaxArguments = 12;
constexpr size_t kMaxArgumentLength = 64;

// The number a first field stands for: base-10 strtol, held in 32 bits.
int32_t NumberOf(const std::string& field) {
  const long value = std::strtol(field.c_str(), nullptr, 10);
  return static_cast<int32_t>(
      std::clamp<long>(value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

std::vector<std::string> Tail(const std::vector<std::string>& fields) {
  if (fields.empty()) return {};
  return std::vector<std::string>(fields.begin() + 1, fields.end());
}

// Splitting and joining again loses one trailing separator, nothing else.
void CheckSplitJoin(const std::string& text, char separator) {
  const std::vector<std::string> fields = SplitFields(text, separator);
  std::string expected = text;
  if (!expected.empty() && expected.back() == separator) expected.pop_back();
  Require(JoinFields(fields, separator) == expected, "joining the fields of a text gives the text back");
  Require(text.empty() == fields.empty(), "only an empty text has no fields");
}

void CheckParse(const std::string& text) {
  const IPCResult reply = ParseReply(text);
  const IPCEvent event = ParseEvent(text);
  Require(reply.code == event.id && reply.args == event.args, "replies and events parse alike");
  const std::vector<std::string> fields = SplitFields(text, kFieldSeparator);
  Require(reply.args == Tail(fields), "the arguments are the fields after the first");
  Require(reply.code == (fields.empty() ? 0 : NumberOf(fields.front())), "the code is the first field's number");
}

std::string ArgumentWithoutTab(FuzzedDataProvider& input) {
  std::string arg = input.ConsumeRandomLengthString(kMaxArgumentLength);
  arg.erase(std::remove(arg.begin(), arg.end(), kFieldSeparator), arg.end());
  return arg;
}

void CheckRequestRoundTrip(FuzzedDataProvider& input) {
  IPCRequest request;
  request.command = input.ConsumeIntegral<uint32_t>();
  const size_t count = input.ConsumeIntegralInRange<size_t>(0, kMaxArguments);
  for (size_t i = 0; i < count; ++i) request.args.push_back(ArgumentWithoutTab(input));

  const std::string line = FormatRequest(request);
  std::vector<std::string> fields{FormatCommand(request.command)};
  Require(fields.front() == std::to_string(request.command), "the command number is written in decimal");
  fields.insert(fields.end(), request.args.begin(), request.args.end());
  Require(line == JoinFields(fields, kFieldSeparator), "both ways of building a request give one line");

  if (fields.back().empty()) fields.pop_back();
  Require(SplitFields(line, kFieldSeparator) == fields, "a request splits into its fields again");
  const IPCResult parsed = ParseReply(line);
  Require(parsed.code == NumberOf(fields.front()), "a request's number parses back");
  Require(parsed.args == Tail(fields), "a request's arguments parse back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const char separator = input.ConsumeIntegral<char>();
  const std::string text = input.ConsumeRandomLengthString();
  CheckSplitJoin(text, kFieldSeparator);
  CheckSplitJoin(text, separator);
  CheckParse(text);
  CheckRequestRoundTrip(input);
  return 0;
}
