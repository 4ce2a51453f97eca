#include "ipc/client_handle.h"

#include <sys/eventfd.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace zel::ipc {

std::map<IPCClient*, uint32_t> gClientRegistry;
std::mutex gClientRegistryMutex;

namespace {

constexpr char kCreateClientHandleText[] =
    "zel::ipc::IPCClient* zel::ipc::CreateClientHandle(const char*, const char*, uint32_t)";

// The descriptors a new client takes: its socket, its event socket and the
// event socket's monitor eventfd.
constexpr int kDescriptorsPerClient = 3;

// Serialises the set-up of new clients: a client picks the first socket path
// that nothing occupies yet, so two set-ups in one directory at the same time
// could pick the same one.
std::mutex gCreateMutex;

bool IsRegistered(IPCClient* handle) {
  std::lock_guard<std::mutex> lock(gClientRegistryMutex);
  return gClientRegistry.count(handle) != 0;
}

// Whether the next descriptors the process would be given lie below
// FD_SETSIZE: the kernel hands out the lowest free numbers, so borrowing as
// many as a client takes shows the numbers it would get.
bool NextDescriptorsFitSelect() {
  int borrowed[kDescriptorsPerClient];
  bool fit = true;
  for (int& fd : borrowed) {
    fd = eventfd(0, EFD_CLOEXEC);
    if (fd < 0 || fd >= FD_SETSIZE) fit = false;
  }
  for (int fd : borrowed) {
    if (fd >= 0) close(fd);
  }
  return fit;
}

void LogBeyondSelect() {
  syslog(LOG_ERR, "%s %d: a new client's descriptors would not fit select (FD_SETSIZE [%d]), no handle made\n",
         kCreateClientHandleText, 64, FD_SETSIZE);
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
    // NOLINTNEXTLINE(cert-err33-c): cutting a longer argument off at the slot's size is the design
    std::snprintf(result.args[i], kHandleResultSlotSize - 1, "%s", reply.args[i].c_str());
  }
}

}  // namespace

IPCClient* CreateClientHandle(const char* server_path, const char* client_prefix, uint32_t user_value) {
  if (server_path == nullptr || client_prefix == nullptr) return nullptr;
  std::unique_lock<std::mutex> create(gCreateMutex);
  // A client that select cannot wait for would never see a reply, while its
  // retry thread went on sending registrations.
  if (!NextDescriptorsFitSelect()) {
    LogBeyondSelect();
    return nullptr;
  }
  auto client = std::make_unique<IPCClient>();
  if (!client->SetLocalPath(server_path, client_prefix, [](IPCEvent&) {})) return nullptr;
  create.unlock();
  // Another thread may have taken the numbers in between.
  if (!client->DescriptorsFitSelect()) {
    LogBeyondSelect();
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(gClientRegistryMutex);
  gClientRegistry[client.get()] = user_value;
  return client.release();
}

bool DestroyClientHandle(IPCClient* handle) {
  {
    std::lock_guard<std::mutex> lock(gClientRegistryMutex);
    if (gClientRegistry.erase(handle) == 0) return false;
  }
  // Destroyed outside the lock: the unregistration may wait out a reply
  // time-out.
  std::unique_ptr<IPCClient> owned(handle);
  return true;
}

ClientHandleResult SendByHandle(IPCClient* handle, uint32_t cmd, int argc, char** argv) {
  // Zero-filled, so that no slot the reply leaves unused holds stale bytes.
  ClientHandleResult result{};
  if (!IsRegistered(handle)) return result;
  CopyResult(handle->SendRequest(BuildRequest(cmd, argc, argv)), result);
  return result;
}

}  // namespace zel::ipc
