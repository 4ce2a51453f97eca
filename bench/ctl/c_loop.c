/*
 * The baseline of kendrivex-ctl's batch rate: a plain C program that sends
 * the same request N times through the C binding, one exchange after the
 * other, as fast as the service answers. Usage: c_loop SERVICE DIR N
 */
#include <kendrivex_ipc.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  kdx_ipc_client* client;
  long count;
  long i;
  long failures = 0;
  if (argc != 4) {
    /* NOLINTNEXTLINE(cert-err33-c): a failed write to standard error has nowhere to be reported */
    fprintf(stderr, "usage: %s SERVICE DIR N\n", argv[0]);
    return 2;
  }
  client = kdx_ipc_create_client(argv[1], argv[2], 0u);
  if (client == NULL) return 3;
  count = strtol(argv[3], NULL, 10);
  for (i = 0; i < count; ++i) {
    kdx_ipc_result result = kdx_ipc_send(client, KDX_IPC_PING, 0, NULL);
    if (result.code != KDX_IPC_RESULT_SUCCESS) ++failures;
  }
  return failures == 0 ? 0 : 1;
}
