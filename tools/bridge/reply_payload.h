// The payloads of the replies to commands: what kendrivex-ctl -j prints for
// the command with "box": ID added, and the error reply
// {"box":ID,"command":WORD or null,"status":S,"error":"<why>"} for a command
// that could not be carried out. JSON from nlohmann-json, bytes that are not
// valid UTF-8 replaced by U+FFFD. Pure functions; any thread.
#pragma once

#include <optional>
#include <string>

namespace zel::bridge {

class ReplyPayload {
 public:
  // `json` is the reply as kendrivex-ctl -j prints it (one object and a
  // newline).
  static std::string Answered(const std::string& json, const std::string& box);
  static std::string Error(const std::string& box, const std::optional<std::string>& command, int status,
                           const std::string& error);
};

}  // namespace zel::bridge
