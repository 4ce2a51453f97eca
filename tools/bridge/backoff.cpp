#include "tools/bridge/backoff.h"

namespace zel::bridge {

unsigned Backoff::Next() {
  const unsigned wait = mNext;
  mNext = wait * 2 > kMaxSeconds ? kMaxSeconds : wait * 2;
  return wait;
}

}  // namespace zel::bridge
