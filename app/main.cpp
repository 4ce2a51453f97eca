// The program's entry: checks the two arguments, sets up the IPC client,
// installs the signal handlers and runs the command line until "exit" or
// "quit", the end of standard input, or a hang-up.
#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "app/globals.h"

namespace {

const char kPrompt[] = "hi>";
const char kBanner[] =
    "*******************************\n"
    " kendrivex cli\n"
    "*******************************\n";
// The status of a session ended by a hang-up, as a shell reports a program
// that SIGHUP ended.
constexpr int kHungUpStatus = 128 + SIGHUP;

// The terminal settings the program started with. A key read runs with line
// editing and echo off; when SIGSEGV ends the program from inside one, the
// read never gets to put them back, so the handler does.
struct termios gStartTerminal;
bool gHaveStartTerminal = false;

// Ctrl-C and SIGTERM are reported and otherwise ignored, so that an operator
// cannot lose the session by accident; a segmentation fault ends the process
// through exit() so that the static objects still clean up (the event socket
// is unregistered and the socket files removed).
void onSignal(int signo) {
  std::printf("got SIGNAL [%d]\n", signo);
  gCli.notifySignal();
  if (signo == SIGSEGV) {
    if (gHaveStartTerminal) tcsetattr(STDIN_FILENO, TCSANOW, &gStartTerminal);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): exit, not _exit, so that the static objects clean up as designed
    std::exit(-1);
  }
}

// Set when the terminal hung up; read by main once the session has ended.
volatile sig_atomic_t gHungUp = 0;

// A hang-up ends the session as "exit" does, so that the static objects
// still clean up. The terminal is gone, so nothing is printed; only
// async-signal-safe work is done here, and the loop ends on its own thread
// (after the command that is running, if any).
void onHangUp(int /*signo*/) {
  gHungUp = 1;
  gCli.requestStop();
}

// The service's unsolicited events are of no use to the command line.
void onIpcEvent(zel::ipc::IPCEvent& /*event*/) {}

// The signals the handlers take. They are kept from the threads that the IPC
// client starts (the event socket's monitor, the registration retry), so that
// only the main thread runs the handler: exit() on the monitor thread would
// wait for that very thread to end.
sigset_t HandledSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGSEGV);
  sigaddset(&signals, SIGHUP);
  return signals;
}

void InstallSignalHandlers() {
  gHaveStartTerminal = tcgetattr(STDIN_FILENO, &gStartTerminal) == 0;
  // NOLINTBEGIN(cert-err33-c): signal cannot fail for a valid number and handler, and its result is not looked at by
  // design
  signal(SIGTERM, onSignal);
  signal(SIGINT, onSignal);
  signal(SIGSEGV, onSignal);
  signal(SIGHUP, onHangUp);
  // NOLINTEND(cert-err33-c)
}

// Sets the IPC client up with the handled signals blocked, so that the
// threads it starts inherit that. When set-up succeeds the handlers are
// installed before the main thread's mask is put back, so that a signal that
// came during set-up (which can wait for the service's answer) reaches a
// handler rather than ending the program with its socket files left behind.
bool SetUpIpcClient(const std::string& serverPath, const std::string& clientPathPrefix) {
  zel::ipc::IPCClient::EventCb eventCb = onIpcEvent;
  const sigset_t handled = HandledSignals();
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &handled, &previous);
  const bool ready = gIpcClient.SetLocalPath(serverPath, clientPathPrefix, eventCb);
  if (ready) InstallSignalHandlers();
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return ready;
}

}  // namespace

int main(int argc, char** argv) {
  // Line-buffered whatever standard output is, as the C library makes it on
  // a terminal: into a pipe or a file (a session kept with tee) each line
  // goes out as soon as it is complete, in the bytes and the order a terminal
  // gets, rather than all at the end of the session.
  setlinebuf(stdout);
  if (argc < 3) {
    std::printf("usage: %s [server_path] [client_path_prefix(==dir)]\n", argv[0]);
    return -1;
  }
  if (!SetUpIpcClient(argv[1], argv[2])) {
    std::printf("Cannot set ipc_client: please check %s and %s\n", argv[1], argv[2]);
    return -1;
  }

  gCli.setPrompt(kPrompt);
  gCli.setBanner(kBanner);
  // The interface takes the table by value: it keeps its own copies.
  gCli.registerCommands(gDeviceCommands);

  gCli.run();
  // The session is over: a hang-up now changes nothing, and the handler must
  // not reach the interface while the static objects are destroyed.
  signal(SIGHUP, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for SIGHUP; not looked at by design
  return gHungUp != 0 ? kHungUpStatus : 0;
}
