// The baseline of kendrivex-ctl's start-to-exit time: the smallest C++
// program that starts, prints a line through the C++ library and exits.
#include <iostream>

int main() {
  std::cout << "PONG\n";
  return 0;
}
