// How the IPC client names its socket files: in the directory it is given
// (one trailing slash dropped), "ipc_client-<pid>-<n>" for the first free of
// ten slots n, and its event socket that path with "-event" after it. The
// client picks the path; programs that check or explain paths read the same
// scheme here. Constants and pure functions.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zel::ipc {

// What follows the directory in every client socket path, before the
// process id, the "-" and the slot number.
constexpr const char* kClientPathStem = "/ipc_client-";
// One process may make this many clients in one directory.
constexpr int kClientSlots = 10;
// What the event socket's path adds to the client socket's.
constexpr const char* kEventPathSuffix = "-event";
// The longest path that a Unix socket address holds with its zero byte.
constexpr size_t kMaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

// The directory as client paths are made in it: one trailing slash is dropped
// (only one, so "/tmp//" keeps one slash too many).
// (erase rather than pop_back: the program imports erase already, and each
// import costs the device build its bytes.)
inline void DropTrailingSlash(std::string& dir) {
  if (!dir.empty() && dir.back() == '/') dir.erase(dir.size() - 1);
}

// The socket path of `slot` of process `pid` in `dir` (without its trailing
// slash): "<dir>/ipc_client-<pid>-<slot>".
std::string ClientSlotPath(const std::string& dir, uint32_t pid, int slot);

}  // namespace zel::ipc
