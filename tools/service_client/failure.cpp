#include "tools/service_client/failure.h"

#include <cstring>
#include <utility>

namespace zel::service_client {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kCut[] = "...";

// The length of the valid UTF-8 character that begins at `at`, 0 when the
// bytes there are not one (overlong forms and surrogates included).
size_t Utf8Length(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3;
    if (first == 0xE0) low = 0xA0;
    if (first == 0xED) high = 0x9F;
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4;
    if (first == 0xF0) low = 0x90;
    if (first == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (text.size() - at < length) return 0;
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

// Whether a C1 control character (U+0080 to U+009F, C2 80 to C2 9F in
// UTF-8) begins at `at`: some terminals take those for commands too.
bool C1Control(const std::string& text, size_t at) {
  return static_cast<unsigned char>(text[at]) == 0xC2 && at + 1 < text.size() &&
         static_cast<unsigned char>(text[at + 1]) <= 0x9F;
}

// The escape that shows a tab, a line end or the backslash; nullptr for any
// other byte.
const char* EscapeOf(unsigned char byte) {
  switch (byte) {
    case '\t':
      return "\\t";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\\':
      return "\\\\";
    default:
      return nullptr;
  }
}

}  // namespace

std::string Failure::Line(const std::string& program) const { return program + ": " + what + ": " + why + "\n"; }

Failure Fail(int status, std::string what, std::string why) {
  Failure failure;
  failure.status = status;
  failure.what = std::move(what);
  failure.why = std::move(why);
  return failure;
}

Failure Usage(const std::string& what, std::string why) { return Fail(kStatusUsage, Shown(what), std::move(why)); }

std::string ErrorText(int error) {
  char buffer[256];
  // The GNU form: the text is in the buffer or in a constant string.
  return ::strerror_r(error, buffer, sizeof buffer);
}

std::string Shown(const std::string& text, size_t limit) {
  std::string shown;
  size_t characters = 0;
  for (size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const char hex[] = {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 0x0F], '\0'};
    const char* escape = EscapeOf(byte);
    size_t taken = 1;
    if (escape == nullptr) {
      const size_t length = byte < 0x20 || byte == 0x7F || C1Control(text, at) ? 0 : Utf8Length(text, at);
      if (length == 0) escape = hex;
      taken = length == 0 ? 1 : length;
    }
    // An escape counts as the characters it shows, a UTF-8 character as one.
    const size_t width = escape != nullptr ? std::strlen(escape) : 1;
    if (characters + width > limit) return shown.append(kCut);
    if (escape != nullptr) {
      shown.append(escape);
    } else {
      shown.append(text.data() + at, taken);
    }
    characters += width;
    at += taken;
  }
  return shown;
}

bool ValidUtf8(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = Utf8Length(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

}  // namespace zel::service_client
