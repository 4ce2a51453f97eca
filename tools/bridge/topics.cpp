#include "tools/bridge/topics.h"

#include "util/decimal_text.h"

namespace zel::bridge {

Topics::Topics(const std::string& prefix, const std::string& id)
    : mBox(prefix + "/" + id + "/"),
      mStatus(mBox + "status"),
      mService(mBox + "service"),
      mCommand(mBox + "cmd"),
      mAllCommand(prefix + "/all/cmd"),
      mReply(mBox + "reply") {}

std::string Topics::Event(int32_t id) const { return mBox + "event/" + zel::util::SignedDecimalText(id); }

}  // namespace zel::bridge
