/*
 * A plain C program that uses the client library through its C interface:
 * it pings the service once, prints the reply and destroys its handle (which
 * unregisters it and removes its socket files).
 * Usage: ipc_c_example <server_path> <client_dir>
 * Exit status 0 when the service answered with success, 1 otherwise.
 */
#include <kendrivex_ipc.h>
#include <stdio.h>

int main(int argc, char** argv) {
  kdx_ipc_client* client;
  kdx_ipc_result result;
  int i;

  if (argc != 3) {
    /* NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported */
    fprintf(stderr, "usage: %s <server_path> <client_dir>\n", argv[0]);
    return 2;
  }
  client = kdx_ipc_create_client(argv[1], argv[2], 0u);
  if (client == NULL) {
    printf("cannot reach the service at [%s]\n", argv[1]);
    return 1;
  }
  result = kdx_ipc_send(client, KDX_IPC_PING, 0, NULL);
  printf("code [%d] count [%d]\n", (int)result.code, (int)result.count);
  for (i = 0; i < result.count; ++i) printf("arg %d [%s]\n", i, result.args[i]);
  if (kdx_ipc_destroy_client(client) != KDX_IPC_OK) return 1;
  return result.code == KDX_IPC_RESULT_SUCCESS ? 0 : 1;
}
