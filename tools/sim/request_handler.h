// Decides the simulator's answer to each request line: the service's normal
// replies, the registry of event paths, and the misbehaviour asked for on the
// command line. Knows nothing of sockets, so it can be driven directly.
// Handle runs on one thread at a time (the service's); the event paths it
// shares are safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/sim/event_paths.h"
#include "tools/sim/sim_options.h"

namespace zel::sim {

class RequestHandler {
 public:
  // Result codes in the first field of a reply.
  static constexpr int kSuccess = 1;
  static constexpr int kInvalidCommand = 2;
  static constexpr int kRefused = 3;
  // The oversize reply fills a client's whole receive buffer.
  static constexpr size_t kOversizeLength = 8192;

  struct Answer {
    bool reply = false;    // false: nothing goes back
    std::string text;      // the reply line
    uint32_t delayMs = 0;  // how late the reply leaves
    std::string note;      // what was done, for the request line; may be empty
  };

  RequestHandler(const SimOptions& options, EventPaths& paths);
  RequestHandler(const RequestHandler&) = delete;
  RequestHandler& operator=(const RequestHandler&) = delete;

  Answer Handle(const std::string& request);

 private:
  Answer Respond(uint32_t command, const std::vector<std::string>& fields);
  Answer Register(const std::vector<std::string>& fields);
  Answer Unregister(const std::vector<std::string>& fields);
  void Misbehave(uint32_t command, Answer& answer) const;
  std::string PathCount() const;

  const SimOptions& mOptions;
  EventPaths& mPaths;
  uint32_t mRefusalsLeft;
};

}  // namespace zel::sim
