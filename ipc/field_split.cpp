#include "ipc/field_split.h"

namespace zel::ipc {

std::vector<std::string> SplitFields(const std::string& text, char separator) {
  std::vector<std::string> fields;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find(separator, start);
    if (end == std::string::npos) {
      fields.emplace_back(text, start);
      break;
    }
    fields.emplace_back(text, start, end - start);
    start = end + 1;
  }
  return fields;
}

std::string JoinFields(const std::vector<std::string>& fields, char separator) {
  std::string line;
  for (const std::string& field : fields) {
    line += field;
    line += separator;
  }
  if (!line.empty()) line.erase(line.size() - 1);
  return line;
}

}  // namespace zel::ipc
