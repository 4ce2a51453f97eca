// Throws an exception through code of the shipped libraries and catches it on
// the far side: prints what it caught and exits 0, or exits 1 when nothing
// arrived. In a size build this program is built like the shipped binaries
// (-Os, link-time optimised, unreferenced sections collected), so it shows
// that their unwind tables survived; the standard library reports failures
// such as a thread that cannot start by exceptions.
#include <cstdio>
#include <stdexcept>

#include "util/thread.h"

namespace {

// Moves freely but refuses to be copied. Thread::Start copies its callable
// into the new thread, so the exception leaves from inside the library.
struct RefusesCopies {
  RefusesCopies() = default;
  RefusesCopies(RefusesCopies&&) noexcept = default;
  RefusesCopies(const RefusesCopies&) { throw std::runtime_error("the callable refuses to be copied"); }
  void operator()() const {}
};

}  // namespace

int main() {
  zel::util::Thread thread;
  try {
    thread.Start(RefusesCopies(), false);
  } catch (const std::runtime_error& e) {
    std::printf("caught: %s\n", e.what());
    return 0;
  }
  std::printf("nothing was thrown\n");
  thread.Join();
  return 1;
}
