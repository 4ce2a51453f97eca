#include "tests/support/log_record.h"

#include <cstdio>

namespace zel::test {

bool operator==(const LogRecord& a, const LogRecord& b) { return a.priority == b.priority && a.text == b.text; }

bool operator!=(const LogRecord& a, const LogRecord& b) { return !(a == b); }

void PrintTo(const LogRecord& record, std::ostream* os) {
  *os << "{priority " << record.priority << ", \"" << Printable(record.text) << "\"}";
}

std::string Printable(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case 27:
        out += "\\e";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        if (c < 32 || c > 126) {
          char hex[8];
          std::snprintf(hex, sizeof hex, "\\x%02x", c);
          out += hex;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out;
}

}  // namespace zel::test
