// The decimal text of an unsigned number, as the socket and IPC layers put
// numbers into paths, peer texts and request lines, and the number of such a
// text, as the programs read their numeric options. Pure functions; no
// shared state.
#pragma once

#include <cstdint>
#include <string>

namespace zel::util {

// "0", "42", "4294967295": no sign, no padding.
std::string DecimalText(uint32_t value);
// "-3", "0", "42": a minus sign for a negative number, no padding.
std::string SignedDecimalText(int32_t value);

// The number that a text of decimal digits only (no sign, no blanks, at
// least one digit) stands for, when it is at most `max`; false for any other
// text, however many digits it has.
bool ParseDecimal(const std::string& text, uint64_t max, uint64_t& value);

}  // namespace zel::util
