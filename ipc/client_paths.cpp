#include "ipc/client_paths.h"

#include "util/decimal_text.h"

namespace zel::ipc {

std::string ClientSlotPath(const std::string& dir, uint32_t pid, int slot) {
  return dir + kClientPathStem + zel::util::DecimalText(pid) + "-" +
         zel::util::DecimalText(static_cast<uint32_t>(slot));
}

}  // namespace zel::ipc
