// What a front end writes, and where: its output on standard output, each
// failure and warning as one line on standard error, and its own messages to
// the system log, with a copy on standard error when the operator is to see
// them. Every piece goes out in one write, unbuffered, so that a reader of a
// pipe sees each line as soon as it is made, and lines of other writers (a
// program run per event) never cut into them.
//
// The log's rules, set once by OpenLog:
// - A front end's own messages (Log) always go to the system log; a copy goes
//   to standard error, "<program>: <text>", when the priority is a warning or
//   worse and standard error is a terminal, or when -v was given.
// - The IPC library's records (its own syslog calls, whose texts are fixed)
//   go to the system log, and below a front end's quiet mask only with -v.
//   They reach standard error only with -v -v, through the C library
//   (LOG_PERROR), which then copies the front end's messages too: Log does
//   not copy them a second time.
//
// Threading: SetProgramName and OpenLog on the main thread at start, before
// any other thread starts; Log, Report, Warn and WriteAll from any thread
// after; an Output on one thread.
#pragma once

#include <string>

#include "tools/service_client/failure.h"

namespace zel::service_client {

// The program's name, which every line on standard error and every record
// in the system log begins with: a text that lasts as long as the program (a
// literal).
void SetProgramName(const char* name);
const char* ProgramName();

// Writes all of `text` to `fd`, resuming after interruptions and partial
// writes; the errno of a failure, 0 on success.
int WriteAll(int fd, const std::string& text);

// Standard output. Remembers the first failed write, so that the program can
// end as a closed pipe asks.
class Output {
 public:
  // False once a write has failed; nothing more is written then.
  bool Write(const std::string& text);
  bool Broken() const { return mError != 0; }
  // The errno of the failed write, 0 while none failed.
  int Error() const { return mError; }

 private:
  int mError = 0;
};

// The failure's line on standard error: "<program>: <what>: <why>".
void Report(const Failure& failure);
// "<program>: warning: <text>" on standard error, for what the operator
// should know at start (a password file that others may read, say).
void Warn(const std::string& text);

// The exit status. Output into a closed pipe ends the program as SIGPIPE
// would have (the program ignores it, so that its clean-up is done first);
// any other failed write is a local failure, reported.
int Finish(const Output& output, int status);
// Writes `text` (the help, the version) to standard output and returns the
// exit status as Finish does, 0 when it was written.
int PrintText(const std::string& text);

// Opens the system log under the program's name with `facility`, for
// `verbosity` (how often -v was given), with `quietMask` (a setlogmask mask)
// in force without -v.
void OpenLog(int facility, unsigned verbosity, int quietMask);

// One of the front end's own messages, a sentence for an operator without a
// line end, printf-style (no %m); see the rules above. It is cut at 1023
// bytes.
void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zel::service_client
