/*
 * C interface to the device-control service's client, for programs written in
 * C. A handle is an opaque client made and set up by kdx_ipc_create_client;
 * it stays valid until the process ends (there is no call that destroys it).
 * Requests on one handle must not overlap: use a handle from one thread at a
 * time. Creating handles is safe from several threads.
 */
#ifndef KENDRIVEX_IPC_H
#define KENDRIVEX_IPC_H

#include <stdint.h>

#if defined(__GNUC__)
#define KDX_IPC_API __attribute__((visibility("default")))
#else
#define KDX_IPC_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Command numbers the service understands. */
#define KDX_IPC_PING 1u
#define KDX_IPC_WLAN_AP_CLIENT_LIST 2u
#define KDX_IPC_WLAN_MAC 3u
#define KDX_IPC_REGISTER_EVENT_PATH 4u
#define KDX_IPC_UNREGISTER_EVENT_PATH 5u

/* Result codes: success comes from the service, the others from the client. */
#define KDX_IPC_RESULT_NONE 0
#define KDX_IPC_RESULT_SUCCESS 1
#define KDX_IPC_RESULT_INVALID_COMMAND 2
#define KDX_IPC_RESULT_NOT_CONNECTED 4
#define KDX_IPC_RESULT_IO_FAILURE 5

#define KDX_IPC_RESULT_SLOTS 12
#define KDX_IPC_RESULT_SLOT_SIZE 256

typedef struct kdx_ipc_client kdx_ipc_client;

/*
 * One reply: its code, up to 12 arguments (each NUL-terminated and cut to 254
 * characters) and how many of the slots are filled. Unused slots are zeroed.
 */
typedef struct kdx_ipc_result {
  int32_t code;
  char args[KDX_IPC_RESULT_SLOTS][KDX_IPC_RESULT_SLOT_SIZE];
  int32_t count;
} kdx_ipc_result;

/*
 * Makes a client whose sockets live in the directory client_prefix, beside the
 * service's socket at server_path, and registers its event socket with the
 * service (events are ignored). user_value is remembered with the handle.
 * Returns NULL when the service's socket or the directory does not exist, or
 * when no socket path is free. May take up to 5 seconds when the service does
 * not answer the registration.
 */
KDX_IPC_API kdx_ipc_client* kdx_ipc_create_client(const char* server_path, const char* client_prefix,
                                                  uint32_t user_value);

/*
 * Sends command cmd with the first argc strings of argv (fewer if a NULL entry
 * comes first) and waits up to 5 seconds for the reply. The code is
 * KDX_IPC_RESULT_IO_FAILURE when no reply came; code and count are 0 for a
 * handle that kdx_ipc_create_client did not return.
 */
KDX_IPC_API kdx_ipc_result kdx_ipc_send(kdx_ipc_client* handle, uint32_t cmd, int argc, char** argv);

#ifdef __cplusplus
}
#endif

#endif /* KENDRIVEX_IPC_H */
