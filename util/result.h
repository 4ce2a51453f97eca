// Outcome of the util layer's set-up operations (creating, binding, connecting
// sockets). A plain value; failures are reported through it, never thrown.
#pragma once

namespace zel {

enum class Result {
  Ok = 0,
  Fail = 1,
};

}  // namespace zel
