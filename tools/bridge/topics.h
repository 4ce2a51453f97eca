// The topics of one box, where P is PREFIX/ID: P/status, P/service,
// P/event/N, P/cmd, P/reply, and PREFIX/all/cmd for commands to every box.
// A plain value, made once from the settings.
#pragma once

#include <cstdint>
#include <string>

namespace zel::bridge {

class Topics {
 public:
  Topics(const std::string& prefix, const std::string& id);

  const std::string& Status() const { return mStatus; }
  const std::string& Service() const { return mService; }
  const std::string& Command() const { return mCommand; }
  const std::string& AllCommand() const { return mAllCommand; }
  const std::string& Reply() const { return mReply; }
  // P/event/N for the event numbered `id`.
  std::string Event(int32_t id) const;

 private:
  std::string mBox;  // P/
  std::string mStatus;
  std::string mService;
  std::string mCommand;
  std::string mAllCommand;
  std::string mReply;
};

}  // namespace zel::bridge
