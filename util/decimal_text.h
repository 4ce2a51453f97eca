// The decimal text of an unsigned number, as the socket and IPC layers put
// numbers into paths, peer texts and request lines. A pure function; no
// shared state.
#pragma once

#include <cstdint>
#include <string>

namespace zel::util {

// "0", "42", "4294967295": no sign, no padding.
std::string DecimalText(uint32_t value);

}  // namespace zel::util
