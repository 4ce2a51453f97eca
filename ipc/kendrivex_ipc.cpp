// The C entry points of the shared library: thin forwards to the handle-based
// binding, with the C record laid out exactly like ClientHandleResult.
#include "ipc/kendrivex_ipc.h"

#include <cstddef>
#include <cstring>

#include "ipc/client_handle.h"

namespace {

using zel::ipc::ClientHandleResult;

static_assert(KDX_IPC_RESULT_SLOTS == zel::ipc::kHandleResultSlots, "slot count differs");
static_assert(KDX_IPC_RESULT_SLOT_SIZE == zel::ipc::kHandleResultSlotSize, "slot size differs");
static_assert(sizeof(kdx_ipc_result) == sizeof(ClientHandleResult), "layout differs");
static_assert(offsetof(kdx_ipc_result, args) == offsetof(ClientHandleResult, args), "layout differs");
static_assert(offsetof(kdx_ipc_result, count) == offsetof(ClientHandleResult, count), "layout differs");
static_assert(KDX_IPC_PING == zel::ipc::Ping && KDX_IPC_UNREGISTER_EVENT_PATH == zel::ipc::UnregisterEventPath,
              "command numbers differ");
static_assert(KDX_IPC_RESULT_SUCCESS == zel::ipc::ResultSuccess &&
                  KDX_IPC_RESULT_IO_FAILURE == zel::ipc::ResultIoFailure,
              "result codes differ");

}  // namespace

extern "C" kdx_ipc_client* kdx_ipc_create_client(const char* server_path, const char* client_prefix,
                                                 uint32_t user_value) {
  return reinterpret_cast<kdx_ipc_client*>(zel::ipc::CreateClientHandle(server_path, client_prefix, user_value));
}

extern "C" kdx_ipc_result kdx_ipc_send(kdx_ipc_client* handle, uint32_t cmd, int argc, char** argv) {
  const ClientHandleResult result =
      zel::ipc::SendByHandle(reinterpret_cast<zel::ipc::IPCClient*>(handle), cmd, argc, argv);
  kdx_ipc_result out;
  std::memcpy(&out, &result, sizeof out);
  return out;
}

extern "C" int kdx_ipc_destroy_client(kdx_ipc_client* handle) {
  return zel::ipc::DestroyClientHandle(reinterpret_cast<zel::ipc::IPCClient*>(handle)) ? KDX_IPC_OK
                                                                                       : KDX_IPC_ERROR_UNKNOWN_HANDLE;
}
