// One system-log record as the code under test emitted it: the priority it
// passed and the fully formatted text. Plain value type, no threading concerns.
#pragma once

#include <ostream>
#include <string>

namespace zel::test {

struct LogRecord {
  int priority;
  std::string text;
};

bool operator==(const LogRecord& a, const LogRecord& b);
bool operator!=(const LogRecord& a, const LogRecord& b);

// Shows the text with control bytes escaped, so failures are readable.
void PrintTo(const LogRecord& record, std::ostream* os);

// Escapes control and non-ASCII bytes as \n, \t, \r, \e or \xNN.
std::string Printable(const std::string& bytes);

}  // namespace zel::test
