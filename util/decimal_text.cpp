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

std::string SignedDecimalText(int32_t value) {
  char text[16];
  const int length = std::snprintf(text, sizeof text, "%d", static_cast<int>(value));
  return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
}

bool ParseDecimal(const std::string& text, uint64_t max, uint64_t& value) {
  if (text.empty()) return false;
  uint64_t parsed = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    const auto digit = static_cast<uint64_t>(c - '0');
    // Checked before it happens, so that no number of digits can wrap round.
    if (digit > max || parsed > (max - digit) / 10) return false;
    parsed = parsed * 10 + digit;
  }
  value = parsed;
  return true;
}

}  // namespace zel::util
