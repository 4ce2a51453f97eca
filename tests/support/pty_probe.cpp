// A small program for the test-support self-tests: it logs, reads keys the way
// an interactive program does (non-canonical only while waiting), reports its
// process id, what its standard input is and the signals it catches, and exits
// with a chosen status.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

int ReadKey() {
  struct termios saved;
  tcgetattr(0, &saved);
  struct termios raw = saved;
  raw.c_lflag &= ~(ICANON | ECHO);
  tcsetattr(0, TCSANOW, &raw);
  unsigned char c = 0;
  const ssize_t n = read(0, &c, 1);
  tcsetattr(0, TCSANOW, &saved);
  return n == 1 ? c : -1;
}

int ReadKeysUntilQ() {
  while (true) {
    std::printf("key>");
    std::fflush(stdout);
    const int c = ReadKey();
    if (c < 0) return 2;
    std::printf("[%02x]\n", c);
    if (c == 'q') return 0;
  }
}

// Reports the signal with async-signal-safe calls only; SIGSEGV ends the
// program with status 4, the others let it carry on.
void Caught(int signo) {
  char text[] = "caught 00\n";
  text[7] = static_cast<char>('0' + signo / 10 % 10);
  text[8] = static_cast<char>('0' + signo % 10);
  const ssize_t ignored = write(1, text, sizeof text - 1);
  (void)ignored;
  if (signo == SIGSEGV) _exit(4);
}

// What descriptor 0 is, and for a pipe or file whether it is at its end.
const char* StandardInputKind() {
  struct stat st;
  if (fstat(0, &st) != 0) return "closed";
  if (isatty(0)) return "terminal";
  char c = 0;
  const bool atEnd = read(0, &c, 1) == 0;
  if (S_ISFIFO(st.st_mode)) return atEnd ? "pipe at its end" : "pipe";
  if (S_ISCHR(st.st_mode)) return atEnd ? "character device at its end" : "character device";
  return "other";
}

}  // namespace

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  if (std::strcmp(mode, "log") == 0) {
    syslog(LOG_WARNING, "probe %s %d\n", "text", 7);
    syslog(LOG_ERR, "second without line end");
    std::printf("logged\n");
    return 3;
  }
  if (std::strcmp(mode, "masked") == 0) {
    setlogmask(LOG_UPTO(LOG_WARNING));  // NOLINT(concurrency-mt-unsafe): the probe has one thread
    syslog(LOG_INFO, "left out\n");
    syslog(LOG_WARNING, "kept\n");
    return 0;
  }
  if (std::strcmp(mode, "keys") == 0) return ReadKeysUntilQ();
  if (std::strcmp(mode, "catch") == 0) {
    struct sigaction action = {};
    action.sa_handler = Caught;
    action.sa_flags = SA_RESTART;  // the key read carries on after the handler
    sigemptyset(&action.sa_mask);
    for (int signo : {SIGINT, SIGTERM, SIGSEGV}) sigaction(signo, &action, nullptr);
    return ReadKeysUntilQ();
  }
  if (std::strcmp(mode, "pid") == 0) {
    std::printf("pid %d\n", static_cast<int>(getpid()));
    return 0;
  }
  if (std::strcmp(mode, "stdin") == 0) {
    std::printf("stdin %s\n", StandardInputKind());
    return 0;
  }
  if (std::strcmp(mode, "stderr") == 0) {
    std::fprintf(stderr, "to stderr\n");
    std::printf("to stdout\n");
    return 0;
  }
  std::printf("usage: %s log|masked|keys|catch|pid|stdin|stderr\n", argv[0]);
  return 1;
}
