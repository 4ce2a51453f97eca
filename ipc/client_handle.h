// The handle-based entry for programs that hold clients through plain
// pointers: a client is created and set up in one call and remembered in a
// process-wide registry with a user value; requests go through the registry.
// The registry is guarded by its own mutex; a handle's requests must not
// overlap. The registry owns its clients until DestroyClientHandle; those
// left are never destroyed.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "ipc/ipc_client.h"

namespace zel::ipc {

// Slots for the arguments of a reply, and the size of each slot.
constexpr int kHandleResultSlots = 12;
constexpr int kHandleResultSlotSize = 256;

// A reply copied into fixed storage: at most 12 arguments, each cut to 254
// characters.
struct ClientHandleResult {
  int32_t code;
  char args[kHandleResultSlots][kHandleResultSlotSize];
  int32_t count;
};

// Every live client made by CreateClientHandle, with its user value.
// Guarded by gClientRegistryMutex.
extern std::map<IPCClient*, uint32_t> gClientRegistry;
extern std::mutex gClientRegistryMutex;

// A new client set up with a callback that ignores events (so its event socket
// is made and registered); null when the set-up fails, or when its
// descriptors would not all lie below FD_SETSIZE (1024), where select cannot
// wait for them. Set-ups from several threads run one after the other.
IPCClient* CreateClientHandle(const char* server_path, const char* client_prefix, uint32_t user_value);

// Unregisters the client's event path, stops its threads, closes its
// descriptors, removes both socket files and forgets the handle; false (and
// nothing done) for a handle that is not registered, such as one destroyed
// already. No other thread may use the handle meanwhile.
bool DestroyClientHandle(IPCClient* handle);

// Sends `cmd` with the first `argc` strings of `argv` (fewer if a null entry
// comes first) through a registered client, with no range check. An unknown
// handle gives code 0 and count 0.
ClientHandleResult SendByHandle(IPCClient* handle, uint32_t cmd, int argc, char** argv);

}  // namespace zel::ipc
