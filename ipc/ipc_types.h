// The records and numbers that requests, replies and events carry between the
// client and the device-control service. Plain value types, copied and moved
// freely; no threading concerns.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel::ipc {

// Command numbers the client sends; the client refuses any other number in Send.
enum IPCCommand : uint32_t {
  Ping = 1,
  WlanApClientList = 2,
  WlanMac = 3,
  RegisterEventPath = 4,
  UnregisterEventPath = 5,
};

// Values of IPCResult::code. ResultSuccess comes from the service; the others
// are set by parsing or by the client itself. The service may put any other
// number in a reply, which is passed on unchanged.
enum IPCResultCode : int32_t {
  ResultNone = 0,
  ResultSuccess = 1,
  ResultInvalidCommand = 2,
  ResultNotConnected = 4,
  ResultIoFailure = 5,
};

// A parsed reply: the result code and the fields that followed it.
struct IPCResult {
  std::vector<std::string> args;
  int32_t code = ResultNone;
};

// A parsed event: the event number and the fields that followed it.
struct IPCEvent {
  std::vector<std::string> args;
  int32_t id = 0;
};

// A request as the handle-based entry builds it: any command number, no range
// check, and its argument fields.
struct IPCRequest {
  uint32_t command = 0;
  std::vector<std::string> args;
};

}  // namespace zel::ipc
