// A small program for the test-support self-tests: it logs, reads keys the way
// an interactive program does (non-canonical only while waiting) and exits
// with a chosen status.
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

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

}  // namespace

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  if (std::strcmp(mode, "log") == 0) {
    syslog(LOG_WARNING, "probe %s %d\n", "text", 7);
    syslog(LOG_ERR, "second without line end");
    std::printf("logged\n");
    return 3;
  }
  if (std::strcmp(mode, "keys") == 0) {
    while (true) {
      std::printf("key>");
      std::fflush(stdout);
      const int c = ReadKey();
      if (c < 0) return 2;
      std::printf("[%02x]\n", c);
      if (c == 'q') return 0;
    }
  }
  if (std::strcmp(mode, "stderr") == 0) {
    std::fprintf(stderr, "to stderr\n");
    std::printf("to stdout\n");
    return 0;
  }
  std::printf("usage: %s log|keys|stderr\n", argv[0]);
  return 1;
}
