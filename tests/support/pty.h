// A pseudo-terminal pair for tests: the master side is ours, the slave side is
// the program's terminal. Output processing stays on (so "\n" arrives as
// "\r\n"); echo and the canonical-mode editing characters are switched off,
// so that keys which reach the terminal between two of the program's key reads
// are neither echoed nor eaten. Owns the master descriptor; one thread at a time.
#pragma once

#include <termios.h>

#include <chrono>
#include <string>

namespace zel::test {

using std::chrono::milliseconds;

class Pty {
 public:
  Pty();
  ~Pty();
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;

  const std::string& SlaveName() const { return mSlaveName; }
  // Opens the slave side (not as controlling terminal); the caller closes it.
  int OpenSlave() const;

  // True while the program has switched the terminal to non-canonical mode,
  // which it does only while it waits for a key.
  bool ReadsKeyNow() const;
  // The slave's settings (the master reports them, also after the program
  // has closed its side).
  struct termios Settings() const;
  // Waits until ReadsKeyNow() holds, collecting output meanwhile.
  bool WaitForKeyRead(milliseconds timeout);

  // Sends bytes as typed keys, all in one write.
  void Write(const std::string& bytes);

  // Collects what the program wrote. Each wait returns as soon as its
  // condition holds and false when the time-out passes first.
  bool WaitForOutput(const std::string& needle, milliseconds timeout);
  bool WaitForOutputSize(size_t size, milliseconds timeout);
  // True once no output has arrived for `quiet` (bounded by `timeout`).
  bool WaitForQuiet(milliseconds quiet, milliseconds timeout);
  // Reads until the slave side is closed by everyone (end of output).
  bool WaitForEnd(milliseconds timeout);

  // Output collected since the last TakeOutput().
  const std::string& Output() const { return mOutput; }
  std::string TakeOutput();

 private:
  // Reads what is available within `wait`; false when nothing came.
  bool Pump(milliseconds wait);

  int mMaster = -1;
  std::string mSlaveName;
  std::string mOutput;
  bool mEnded = false;
};

}  // namespace zel::test
