/*
 * C interface to the device-control service's client, for programs written in
 * C. A handle is an opaque client made and set up by kdx_ipc_create_client
 * and valid until kdx_ipc_destroy_client. Requests on one handle must not
 * overlap: use a handle from one thread at a time. Creating and destroying
 * different handles is safe from several threads.
 *
 * Each handle holds 3 descriptors (its socket, its event socket and the event
 * socket's wake-up eventfd) and one thread. A directory has ten socket slots
 * for each process, so one process can have at most 10 live handles per
 * directory. The client waits for replies with select, which cannot wait for
 * descriptors at or above FD_SETSIZE (1024): a process that already has most
 * of its first 1024 descriptors in use cannot make more handles (with handles
 * in several directories, 339 in a process that opens nothing else).
 *
 * When the service is restarted, the next request on a handle finds it
 * again: the handle's socket is made anew, its event socket registered with
 * the new service, and the request sent once more.
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

/* Results of kdx_ipc_destroy_client. */
#define KDX_IPC_OK 0
#define KDX_IPC_ERROR_UNKNOWN_HANDLE (-1)

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
 * Returns NULL when the service's socket or the directory does not exist, when
 * no socket path is free, or when the new handle's descriptors would not lie
 * below FD_SETSIZE (logged at LOG_ERR). May take up to 5 seconds when the
 * service does not answer the registration.
 */
KDX_IPC_API kdx_ipc_client* kdx_ipc_create_client(const char* server_path, const char* client_prefix,
                                                  uint32_t user_value);

/*
 * Sends command cmd with the first argc strings of argv (fewer if a NULL entry
 * comes first) and waits up to 5 seconds for the reply; up to 10 seconds while
 * the handle repeats its registration in the background, whose exchange it
 * waits for first. The code is KDX_IPC_RESULT_IO_FAILURE when no reply came;
 * code and count are 0 for a handle that kdx_ipc_create_client did not return.
 */
KDX_IPC_API kdx_ipc_result kdx_ipc_send(kdx_ipc_client* handle, uint32_t cmd, int argc, char** argv);

/*
 * Unregisters the handle's event socket with the service, stops its thread,
 * closes its descriptors, removes both of its socket files and forgets the
 * handle. Returns KDX_IPC_OK, or KDX_IPC_ERROR_UNKNOWN_HANDLE (doing nothing)
 * for NULL, a handle that kdx_ipc_create_client did not return, or one that
 * is destroyed already. May take up to 5 seconds when the service does not
 * answer the unregistration (up to 10 while a repeated registration waits for
 * its answer). No other thread may use the handle meanwhile, and the handle
 * must not be used afterwards.
 */
KDX_IPC_API int kdx_ipc_destroy_client(kdx_ipc_client* handle);

#ifdef __cplusplus
}
#endif

#endif /* KENDRIVEX_IPC_H */
