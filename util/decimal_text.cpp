#include "util/decimal_text.h"

#include <cstdio>

namespace zel::util {

// Written by the C library's formatter, which the program links anyway,
// rather than std::to_string, whose digit table and conversion code would be
// copied into every binary for the same result.
std::string DecimalText(uint32_t value) {
  char text[16];
  const int length = std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(value));
  return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
}

}  // namespace zel::util
