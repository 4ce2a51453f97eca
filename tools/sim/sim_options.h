// What the device-service simulator is told on its command line: where to
// serve, what to answer, which events to push and how to misbehave on purpose.
// A plain value filled once by Parse before any thread starts; read-only after.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace zel::sim {

struct SimOptions {
  // What Parse found on the command line.
  enum class Outcome {
    Run,      // serve with these options
    Help,     // print the usage text and stop
    Version,  // print the version and stop
    Error,    // print the error in one line, pointing to --help, and stop with a failure
  };

  // The service's socket path (the one positional argument).
  std::string socketPath;
  // Where the per-request lines go; empty means standard output.
  std::string logPath;

  // The stations answered to the station-list request, one field each.
  std::vector<std::string> stations;
  // The access point's MAC address answered to the MAC request.
  std::string mac;

  // Events pushed to every registered path; an interval of 0 pushes none.
  uint32_t eventIntervalMs = 0;
  int32_t eventId = 0;
  std::string eventText;

  // Misbehaviour on purpose, applied to the replies of the commands in
  // `faultyCommands` only (registration and unregistration included only
  // when listed), so that the client can still start and stop cleanly.
  uint32_t delayMs = 0;
  bool dropReplies = false;
  bool garbageReplies = false;
  bool oversizeReplies = false;
  std::set<uint32_t> faultyCommands;
  // So many registrations are refused before one is accepted.
  uint32_t refuseRegistrations = 0;

  // The defaults: a few stations, a MAC address, an event every 10 s, no
  // misbehaviour, faults (when asked for) on the device commands 1 to 3.
  SimOptions();

  // Fills `options` from the arguments after the program name; on Error,
  // `error` says what is wrong as "<what>: <why>", <what> being the option or
  // argument at fault.
  static Outcome Parse(const std::vector<std::string>& args, SimOptions& options, std::string& error);
  // The --help text for the program named `program`.
  static std::string Usage(const std::string& program);
};

}  // namespace zel::sim
