#include "tools/bridge/topics.h"

namespace zel::bridge {

Topics::Topics(const std::string& prefix, const std::string& id)
    : mBox(prefix + "/" + id + "/"),
      mStatus(mBox + "status"),
      mService(mBox + "service"),
      mCommand(mBox + "cmd"),
      mAllCommand(prefix + "/all/cmd"),
      mReply(mBox + "reply") {}

std::string Topics::Event(int32_t id) const { return mBox + "event/" + std::to_string(id); }

}  // namespace zel::bridge
