// Splitting a line into fields at a separator, and joining fields into a line,
// the way the service's line format needs it. Stateless functions.
#pragma once

#include <string>
#include <vector>

namespace zel::ipc {

// Fields of `text` as a stream read up to each separator would give them:
// empty fields between two separators are kept, a leading separator gives an
// empty first field, a trailing separator gives no empty last field, and an
// empty text gives no fields at all.
std::vector<std::string> SplitFields(const std::string& text, char separator);

// Appends every field followed by the separator, then drops the final
// separator. No fields give an empty line.
std::string JoinFields(const std::vector<std::string>& fields, char separator);

}  // namespace zel::ipc
