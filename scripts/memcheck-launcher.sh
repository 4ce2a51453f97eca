#!/bin/sh
# The launcher (KDX_TEST_LAUNCHER) of scripts/memcheck.sh: the end-to-end
# tests put it before every program they start. The client, kendrivex-bridge
# and kendrivex-fleet run under valgrind memcheck, whose report goes to a file
# of its own in $KDX_MEMCHECK_LOGS (never to the terminal the tests compare)
# and which keeps the program's process id, signals and exit status; every
# other program (the simulator, the test executable itself for a death test)
# runs as it is.
#
# A test that runs its programs behind a launcher passes environment entries
# meant for the program itself (the preloaded system-log capture) in
# QEMU_SET_ENV, a comma-separated list, as the emulator of the armhf build
# wants them; here they are set for the program.
if [ -n "${QEMU_SET_ENV:-}" ]; then
  saved_ifs=$IFS
  IFS=,
  for entry in $QEMU_SET_ENV; do
    export "${entry?}"
  done
  IFS=$saved_ifs
  unset QEMU_SET_ENV
fi

case "$(basename "$1")" in
  kendrivex-cli|kendrivex-bridge|kendrivex-fleet)
    exec valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect \
      --errors-for-leak-kinds=definite,indirect --child-silent-after-fork=yes \
      --log-file="$KDX_MEMCHECK_LOGS/memcheck.%p.log" "$@"
    ;;
  *)
    exec "$@"
    ;;
esac
