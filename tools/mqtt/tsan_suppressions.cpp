// ThreadSanitizer's suppressions and defaults for what links libmosquitto,
// compiled into the bridge and the tests in the tsan build only.
// libmosquitto takes its internal mutexes in an order that depends on the
// call (a publication from inside one of its callbacks, or outside; a
// disconnection), which the sanitizer reports as a lock-order inversion even
// when one thread alone uses the client, as the bridge's link does: no second
// thread can take them the other way round, so no deadlock can come of it.
// Only reports of that kind within libmosquitto are left out.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's hook, by this name
extern "C" const char* __tsan_default_suppressions() { return "deadlock:libmosquitto.so.1\n"; }

// The sanitizer's defaults for these programs: no sleep of a second at exit
// (its atexit_sleep_ms, there so that other threads' reports come out), which
// would count against the bridge's stop of at most 2 s in every test of it.
// Options in TSAN_OPTIONS still apply on top.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's hook, by this name
extern "C" const char* __tsan_default_options() { return "atexit_sleep_ms=0"; }
