// The service's line format: request lines are built from a command number and
// argument fields, reply and event lines are parsed into records. Fields are
// separated by one tab; the first field is a decimal number. Stateless functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ipc/ipc_types.h"

namespace zel::ipc {

// The field separator of every line.
constexpr char kFieldSeparator = '\t';
// A reply must be shorter than this, so that a zero byte always follows it:
// the client reads each reply into a buffer of this size.
constexpr size_t kReplyBufferSize = 8192;

// A command number as the first field of a request ("%u").
std::string FormatCommand(uint32_t command);

// The request line: the command number, then each argument with a tab before it.
std::string FormatRequest(const IPCRequest& request);

// Field 1 becomes the code (base-10 strtol: leading blanks and a sign accepted,
// digits up to the first other character, 0 when there are none), fields 2 to n
// the arguments. An empty text gives code 0 and no arguments.
IPCResult ParseReply(std::string text);

// The same parse for an event line; field 1 is the event number.
IPCEvent ParseEvent(std::string text);

}  // namespace zel::ipc
