// What a command handler reports to the dispatcher of the command-line
// interface. A plain value type; handlers may also return other numbers, which
// the dispatcher reports as failure codes.
#pragma once

#include <cstdint>

namespace zel::cli {

enum class Result : int32_t {
  Ok = 0,     // success; the dispatcher prints nothing
  Fail = 1,   // failure; also what a command without a handler yields
  Usage = 2,  // wrong usage; the dispatcher prints the command's usage text
};

}  // namespace zel::cli
