// One failure of the tools' client core: the status it stands for (also the
// exit status of kendrivex-ctl), what it concerns and why. Every failure of
// the core comes as this type and every program shows it the same way, as
// one line "<program>: <what>: <why>". What a line quotes of its input is
// shortened and escaped first (Shown), so that an error line never carries
// control bytes or megabytes. Plain values and pure functions; any thread.
#pragma once

#include <cstddef>
#include <string>

namespace zel::service_client {

// What a status tells a script.
enum Status : int {
  kStatusOk = 0,
  kStatusRefused = 1,      // the service answered, but not with success or not usably
  kStatusUsage = 2,        // a wrong command, argument, option or request
  kStatusUnreachable = 3,  // no service at the path, refused, or no reply within the time-out
  kStatusLocal = 4,        // local set-up failed: the directory, a path, a socket file
};

struct Failure {
  int status = kStatusOk;
  std::string what;  // as shown: built from Shown() texts where it quotes input
  std::string why;
  // The command word is missing or names no command: a front end with a
  // help text may point to it after `why`.
  bool commandUnknown = false;

  bool Failed() const { return status != kStatusOk; }
  // "<program>: <what>: <why>" and a newline, as written to standard error.
  std::string Line(const std::string& program) const;
};

// Shorthand for building a failure in one expression.
Failure Fail(int status, std::string what, std::string why);
// A usage failure (status 2) about `what` as typed (shown through Shown).
Failure Usage(const std::string& what, std::string why);

// The C library's text for an errno value. Callable from any thread, which
// strerror is not.
std::string ErrorText(int error);

// How much of a quoted word or value an error line shows, and of a path
// (which may be longer: no usable socket path is longer than 107 bytes).
constexpr size_t kShownLength = 80;
constexpr size_t kShownPathLength = 160;

// `text` as an error line quotes it: tab, line feed, carriage return and the
// backslash as \t, \n, \r and \\, every other control byte, DEL, the bytes
// of a C1 control character (U+0080 to U+009F) and every byte that is not
// part of valid UTF-8 as \xNN; at most `limit` characters
// (an escape or a UTF-8 character never cut), then "..." when cut short.
std::string Shown(const std::string& text, size_t limit = kShownLength);

// Whether `text` is well-formed UTF-8 throughout (no overlong form, surrogate
// or code point beyond U+10FFFF), as Shown judges it.
bool ValidUtf8(const std::string& text);

}  // namespace zel::service_client
