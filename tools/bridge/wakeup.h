// Wakes the broker link's thread from its wait: an eventfd that any thread
// makes readable and the link's thread drains before it waits again. Owns the
// descriptor; Notify from any thread, Drain from one.
#pragma once

namespace zel::bridge {

class Wakeup {
 public:
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  bool Ok() const { return mFd >= 0; }
  // Readable after a Notify until the next Drain.
  int Fd() const { return mFd; }
  void Notify();
  void Drain();

 private:
  int mFd = -1;
};

}  // namespace zel::bridge
