#include "ipc/client_handle.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace zel::ipc {

std::map<IPCClient*, uint32_t> gClientRegistry;
std::mutex gClientRegistryMutex;

namespace {

// Serialises the set-up of new clients: a client picks the first socket path
// that nothing occupies yet, so two set-ups in one directory at the same time
// could pick the same one.
std::mutex gCreateMutex;

bool IsRegistered(IPCClient* handle) {
  std::lock_guard<std::mutex> lock(gClientRegistryMutex);
  return gClientRegistry.count(handle) != 0;
}

IPCRequest BuildRequest(uint32_t cmd, int argc, char** argv) {
  IPCRequest request;
  request.command = cmd;
  for (int i = 0; argv != nullptr && i < argc && argv[i] != nullptr; ++i) {
    request.args.emplace_back(argv[i]);
  }
  return request;
}

// Each slot keeps at most 254 characters, one fewer than it could hold, as
// the binding has always copied them.
void CopyResult(const IPCResult& reply, ClientHandleResult& result) {
  result.code = reply.code;
  const size_t count = std::min(reply.args.size(), static_cast<size_t>(kHandleResultSlots));
  result.count = static_cast<int32_t>(count);
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(result.args[i], kHandleResultSlotSize - 1, "%s", reply.args[i].c_str());
  }
}

}  // namespace

IPCClient* CreateClientHandle(const char* server_path, const char* client_prefix, uint32_t user_value) {
  if (server_path == nullptr || client_prefix == nullptr) return nullptr;
  auto client = std::make_unique<IPCClient>();
  {
    std::lock_guard<std::mutex> create(gCreateMutex);
    if (!client->SetLocalPath(server_path, client_prefix, [](IPCEvent&) {})) return nullptr;
  }
  std::lock_guard<std::mutex> lock(gClientRegistryMutex);
  gClientRegistry[client.get()] = user_value;
  return client.release();
}

ClientHandleResult SendByHandle(IPCClient* handle, uint32_t cmd, int argc, char** argv) {
  // Zero-filled, so that no slot the reply leaves unused holds stale bytes.
  ClientHandleResult result{};
  if (!IsRegistered(handle)) return result;
  CopyResult(handle->SendRequest(BuildRequest(cmd, argc, argv)), result);
  return result;
}

}  // namespace zel::ipc
