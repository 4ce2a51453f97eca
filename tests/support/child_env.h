// What a program started by a test gets: its command line behind the test
// launcher (an emulator in a cross build) and its environment, ours with the
// test's entries on top. A library to preload must reach the program, not the
// emulator in front of it, so behind a launcher it travels in QEMU_SET_ENV.
// Stateless functions; the results are prepared before fork, since after it
// the child of a threaded test may only make async-signal-safe calls.
#pragma once

#include <string>
#include <vector>

namespace zel::test {

// The launcher's words (if any) followed by `argv` (execve wants the first
// resolved with ResolveProgram); throws std::invalid_argument when there is
// no program at all.
std::vector<std::string> ChildCommand(const std::vector<std::string>& argv);

// Our environment with `extra` ("NAME=value") on top, for a program started
// behind the launcher when `launched`.
std::vector<std::string> ChildEnv(const std::vector<std::string>& extra, bool launched);

// execve's view of the strings: pointers into them, ended by a null pointer.
std::vector<char*> ExecPointers(std::vector<std::string>& strings);

}  // namespace zel::test
