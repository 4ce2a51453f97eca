// Puts another descriptor in place of one of this process's own (standard
// input, output or error) for the lifetime of the object, and the original
// back after. Does not own the replacement; one thread at a time.
#pragma once

#include <unistd.h>

namespace zel::test {

class Redirect {
 public:
  Redirect(int target, int replacement) : mTarget(target), mSaved(::dup(target)) { ::dup2(replacement, target); }
  ~Redirect() {
    ::dup2(mSaved, mTarget);
    ::close(mSaved);
  }
  Redirect(const Redirect&) = delete;
  Redirect& operator=(const Redirect&) = delete;

 private:
  int mTarget;
  int mSaved;
};

}  // namespace zel::test
