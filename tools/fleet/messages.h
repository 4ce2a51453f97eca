// The fleet's topics, and what boxes publish there read as untrusted input:
// a box can be broken or hostile, so every status, service, event and reply
// is checked before anything of it is used (its size first, then its form,
// then the box it names against the box of its topic), and what fails is
// skipped and counted by reason. Also how box data is shown: plain text with
// control bytes escaped as the client core's Shown does, and JSON
// re-serialised with every control character escaped, so that nothing a box
// sent reaches a terminal raw. Plain values and pure functions; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zel::fleet {

// The largest payload read from a box; a larger one is skipped.
constexpr size_t kMaxPayload = 65536;
// The word that stands for every box: no box's ID.
constexpr char kAllBoxes[] = "all";

// The topics of one prefix. P stands for PREFIX/ID: P/status and P/service
// (retained), P/event/N, P/cmd, and P/reply/RUN for the replies to the run
// RUN. PREFIX/all/ is no box's: commands to every box go there, and the
// fleet's own sync markers below PREFIX/all/sync/.
class Topics {
 public:
  explicit Topics(std::string prefix);

  const std::string& Prefix() const { return mPrefix; }
  std::string Status(const std::string& box) const;
  std::string Service(const std::string& box) const;
  std::string Events(const std::string& box) const;  // P/event/#
  std::string Command(const std::string& box) const;
  std::string Reply(const std::string& box, const std::string& run) const;
  // The same leaf of every box: PREFIX/+/<leaf>.
  std::string OfEveryBox(const std::string& leaf) const;
  // The sync marker of the run `run`.
  std::string Marker(const std::string& run) const;

  // The level after PREFIX/ of a topic below it, as it stands (the caller
  // checks it with ValidBoxId), and what follows that level ("status",
  // "event/7"); false for a topic elsewhere or without anything after it.
  bool Split(std::string_view topic, std::string& box, std::string_view& leaf) const;

 private:
  std::string mPrefix;
};

// Whether `text` is UTF-8 without control characters (C0, DEL, C1), as a
// topic's text must be to be shown as it is.
bool ControlFree(const std::string& text);

// Whether `id` can be a box's ID: not empty, no '/', '+' or '#', not "all"
// (which stands for every box), valid UTF-8 without control characters (as
// kendrivex-bridge takes one). False with why otherwise.
bool ValidBoxId(const std::string& id, std::string& why);

// A random identifier of 16 hexadecimal digits for a run or a sync marker.
std::string NewRunId();

// Why a message from a box was skipped.
enum class Skip : uint8_t {
  Malformed,  // not the text or JSON object a box sends there
  TooLarge,   // more than kMaxPayload bytes
  OtherBox,   // its JSON names another box than its topic
  Unasked,    // a reply that this run did not ask for, or a second one
};

// The skipped messages of one command, by reason.
class SkipCount {
 public:
  void Add(Skip reason) { ++mCounts[static_cast<size_t>(reason)]; }
  uint64_t Total() const;
  uint64_t Of(Skip reason) const { return mCounts[static_cast<size_t>(reason)]; }
  // "skipped 3 messages from boxes: 1 not of the form a box sends, 2
  // larger than 64 KB"; empty when none was skipped.
  std::string Text() const;

 private:
  std::array<uint64_t, 4> mCounts{};
};

// A retained status or service: a known word, or the empty payload that
// clears it (a box forgotten).
enum class Word : uint8_t { Online, Offline, Up, Down, Cleared };
// False with the reason for anything but `online`/`offline` (a status) or
// `up`/`down` (a service), or an empty payload.
bool ParseStatus(std::string_view payload, Word& word, Skip& reason);
bool ParseService(std::string_view payload, Word& word, Skip& reason);

// An event as the bridge publishes it: {"time":..., "id":N, "args":[...],
// "box":ID}.
struct Event {
  std::string box;
  std::string time;  // as the box sent it
  int32_t id = 0;
  std::vector<std::string> args;
  std::string json;  // the object re-serialised, with "box" added when it had none
};
bool ParseEvent(const std::string& box, std::string_view payload, Event& event, Skip& reason);
// The same for an event that came on box `box`'s topic, whose ID is checked
// first; what fails is counted in `skipped`.
bool ReadBoxEvent(const std::string& box, std::string_view payload, Event& event, SkipCount& skipped);

// A reply as the bridge publishes it: the service's answer,
// {"command":WORD,"code":N,"args":[...],"box":ID}, or the bridge's error
// object, {"box":ID,"command":WORD or null,"status":S,"error":"..."}.
struct Reply {
  bool fromService = false;  // the service's answer; else the bridge's error object
  std::string command;       // empty for an error object's null
  int32_t code = 0;
  std::vector<std::string> args;
  int32_t status = 0;
  std::string error;
  std::string json;  // the object re-serialised
};
bool ParseReply(const std::string& box, std::string_view payload, Reply& reply, Skip& reason);

// JSON text as nlohmann-json writes it (without its escaping to ASCII), with
// DEL and the C1 control characters (U+0080 to U+009F) escaped too: it
// escapes the C0 ones itself, and a terminal takes some of the others for
// commands.
std::string JsonShown(const std::string& json);

// `text` with tabs, line ends, backslashes, control bytes and bytes that are
// not UTF-8 escaped as the client core's Shown does, at any length.
std::string Escaped(const std::string& text);

}  // namespace zel::fleet
