#include "tools/sim/sim_options.h"

#include <limits>

#include "tools/sim/argument_reader.h"
#include "util/decimal_text.h"

namespace zel::sim {
namespace {

// Stations as an access point reports them: MAC address, IP address and host
// name. Phones use randomised (locally administered) MAC addresses.
const char* const kDefaultStations[] = {
    "f2:3a:9c:51:0e:47 192.168.43.12 pixel-7",
    "3c:22:fb:91:4d:a7 192.168.43.27 maintenance-laptop",
    "b8:27:eb:6f:03:d2 192.168.43.40 sensor-gateway",
};
const char kDefaultMac[] = "02:1a:7d:4c:88:e1";
constexpr uint32_t kDefaultEventIntervalMs = 10000;
constexpr int32_t kDefaultEventId = 100;
const char kDefaultEventText[] = "heartbeat";

bool ParseUint32(const std::string& text, uint32_t& value) {
  uint64_t parsed = 0;
  if (!zel::util::ParseDecimal(text, std::numeric_limits<uint32_t>::max(), parsed)) return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

// An optional minus sign, then decimal digits, within the range of int32_t.
bool ParseInt32(const std::string& text, int32_t& value) {
  const bool negative = !text.empty() && text[0] == '-';
  uint64_t magnitude = 0;
  const uint64_t max = negative ? uint64_t{1} << 31 : std::numeric_limits<int32_t>::max();
  if (!zel::util::ParseDecimal(negative ? text.substr(1) : text, max, magnitude)) return false;
  value = static_cast<int32_t>(negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude));
  return true;
}

// Comma-separated command numbers, at least one.
bool ParseCommandList(const std::string& text, std::set<uint32_t>& commands) {
  std::set<uint32_t> parsed;
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    uint32_t command = 0;
    if (!ParseUint32(text.substr(start, comma - start), command)) return false;
    parsed.insert(command);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  commands = std::move(parsed);
  return true;
}

bool Fail(std::string& error, const std::string& text) {
  error = text;
  return false;
}

SimOptions::Outcome Refuse(std::string& error, const std::string& text) {
  error = text;
  return SimOptions::Outcome::Error;
}

bool IsFlag(const std::string& name) {
  return name == "--no-stations" || name == "--drop" || name == "--garbage" || name == "--oversize";
}

// The first station given replaces the built-in list.
void SetFlag(const std::string& name, SimOptions& options, bool& stationsGiven) {
  if (name == "--no-stations") {
    options.stations.clear();
    stationsGiven = true;
  }
  if (name == "--drop") options.dropReplies = true;
  if (name == "--garbage") options.garbageReplies = true;
  if (name == "--oversize") options.oversizeReplies = true;
}

bool SetText(const std::string& name, const std::string& value, SimOptions& options, bool& stationsGiven,
             std::string& error) {
  if (name == "--station") {
    if (value.find('\t') != std::string::npos) return Fail(error, name + ": cannot hold a tab: \"" + value + "\"");
    if (!stationsGiven) options.stations.clear();
    stationsGiven = true;
    options.stations.push_back(value);
  } else if (name == "--mac") {
    if (value.find('\t') != std::string::npos) return Fail(error, name + ": cannot hold a tab");
    options.mac = value;
  } else if (name == "--event-text") {
    options.eventText = value;
  } else {
    if (value.empty()) return Fail(error, name + ": needs a file name");
    options.logPath = value;
  }
  return true;
}

// What a number option takes, for the message when its value is not that.
const char* ExpectedNumber(const std::string& name) {
  if (name == "--event-id") return "not a whole number from -2147483648 to 2147483647";
  if (name == "--faults-on") return "not a comma-separated list of command numbers";
  if (name == "--refuse-register") return "not a whole number from 0 to 4294967295";
  return "not a whole number of milliseconds from 0 to 4294967295";
}

bool SetNumber(const std::string& name, const std::string& value, SimOptions& options, std::string& error) {
  bool ok = false;
  if (name == "--event-interval") ok = ParseUint32(value, options.eventIntervalMs);
  if (name == "--event-id") ok = ParseInt32(value, options.eventId);
  if (name == "--delay") ok = ParseUint32(value, options.delayMs);
  if (name == "--faults-on") ok = ParseCommandList(value, options.faultyCommands);
  if (name == "--refuse-register") ok = ParseUint32(value, options.refuseRegistrations);
  return ok || Fail(error, name + ": " + ExpectedNumber(name) + ": \"" + value + "\"");
}

bool IsTextOption(const std::string& name) {
  return name == "--station" || name == "--mac" || name == "--event-text" || name == "--log";
}

bool IsNumberOption(const std::string& name) {
  return name == "--event-interval" || name == "--event-id" || name == "--delay" || name == "--faults-on" ||
         name == "--refuse-register";
}

}  // namespace

SimOptions::SimOptions()
    : stations(std::begin(kDefaultStations), std::end(kDefaultStations)),
      mac(kDefaultMac),
      eventIntervalMs(kDefaultEventIntervalMs),
      eventId(kDefaultEventId),
      eventText(kDefaultEventText),
      faultyCommands{1, 2, 3} {}

SimOptions::Outcome SimOptions::Parse(const std::vector<std::string>& args, SimOptions& options, std::string& error) {
  ArgumentReader reader(args);
  bool stationsGiven = false;
  while (reader.Next()) {
    const std::string& name = reader.Name();
    if (!reader.IsOption()) {
      if (!options.socketPath.empty())
        return Refuse(error, name + ": more than one socket path (the first: " + options.socketPath + ")");
      if (name.empty()) return Refuse(error, "socket path: empty");
      options.socketPath = name;
      continue;
    }
    const bool help = name == "--help" || name == "-h";
    const bool version = name == "--version" || name == "-V";
    if (help || version || IsFlag(name)) {
      if (reader.HasInlineValue()) return Refuse(error, name + ": takes no value");
      if (help) return Outcome::Help;
      if (version) return Outcome::Version;
      SetFlag(name, options, stationsGiven);
      continue;
    }
    if (!IsTextOption(name) && !IsNumberOption(name)) return Refuse(error, name + ": unknown option");
    std::string value;
    if (!reader.TakeValue(value)) return Refuse(error, name + ": needs a value");
    const bool set = IsTextOption(name) ? SetText(name, value, options, stationsGiven, error)
                                        : SetNumber(name, value, options, error);
    if (!set) return Outcome::Error;
  }
  if (options.socketPath.empty()) return Refuse(error, "socket path: missing");
  return Outcome::Run;
}

std::string SimOptions::Usage(const std::string& program) {
  return "usage: " + program +
         " [options] <service socket path>\n"
         "\n"
         "Plays the device-control service for kendrivex-cli: binds a Unix datagram\n"
         "socket at the path and answers each request line with one reply line:\n"
         "  1 (ping)                  1<TAB>PONG\n"
         "  2 (station list)          1, then one field per connected station\n"
         "  3 (access point MAC)      1<TAB><MAC address>\n"
         "  4<TAB><path> (register)   1; events are pushed to <path> from then on\n"
         "                            (3: refused, when nothing receives at <path>)\n"
         "  5<TAB><path> (unregister) 1; no more events to <path>\n"
         "  anything else             2\n"
         "It prints one line per request and stops cleanly on SIGINT, SIGTERM or\n"
         "SIGHUP (those not ignored when it started), removing its socket file.\n"
         "\n"
         "What it answers:\n"
         "  --station TEXT          one connected station; repeat for several (the\n"
         "                          first one replaces the built-in list of three)\n"
         "  --no-stations           no station is connected\n"
         "  --mac TEXT              the access point's MAC address (default " +
         std::string(kDefaultMac) +
         ")\n"
         "Events:\n"
         "  --event-interval MS     push an event to every registered path every MS\n"
         "                          milliseconds (default 10000; 0: never)\n"
         "  --event-id N            the event's number (default 100)\n"
         "  --event-text TEXT       the event's text after the number (default\n"
         "                          heartbeat; empty: the number alone)\n"
         "Misbehaving on purpose:\n"
         "  --delay MS              send each reply MS milliseconds late\n"
         "  --drop                  send no reply at all\n"
         "  --garbage               reply with a line that is not a reply\n"
         "  --oversize              reply with 8192 bytes, more than a client reads\n"
         "  --faults-on LIST        the commands the four options above affect,\n"
         "                          comma-separated (default 1,2,3)\n"
         "  --refuse-register N     refuse the first N registrations (reply 3)\n"
         "Output:\n"
         "  --log FILE              append the per-request lines to FILE instead of\n"
         "                          writing them to standard output\n"
         "  -h, --help              show this text\n"
         "  -V, --version           show the version\n";
}

}  // namespace zel::sim
