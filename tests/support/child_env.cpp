#include "tests/support/child_env.h"

#include <stdexcept>

#include "tests/support/launcher.h"

extern char** environ;

namespace zel::test {
namespace {

void SetEntry(std::vector<std::string>& env, const std::string& entry) {
  const std::string name = entry.substr(0, entry.find('=') + 1);
  for (std::string& existing : env) {
    if (existing.compare(0, name.size(), name) == 0) {
      existing = entry;
      return;
    }
  }
  env.push_back(entry);
}

std::string Lookup(const std::vector<std::string>& env, const std::string& name) {
  const std::string prefix = name + "=";
  for (const std::string& entry : env) {
    if (entry.compare(0, prefix.size(), prefix) == 0) return entry.substr(prefix.size());
  }
  return std::string();
}

// A preloaded library must reach the emulated program, not the emulator in
// front of it: that is a host program, and the loader refuses a target library
// in its LD_PRELOAD with an error on the terminal. The emulator sets the
// entries of QEMU_SET_ENV, a comma-separated list, for the program instead.
void SetForEmulatedProgram(std::vector<std::string>& env, const std::string& entry) {
  if (entry.find(',') != std::string::npos) {
    throw std::invalid_argument("a comma cannot pass through QEMU_SET_ENV: " + entry);
  }
  const std::string current = Lookup(env, "QEMU_SET_ENV");
  SetEntry(env, "QEMU_SET_ENV=" + current + (current.empty() ? "" : ",") + entry);
}

}  // namespace

std::vector<std::string> ChildCommand(const std::vector<std::string>& argv) {
  std::vector<std::string> command = LauncherCommand();
  command.insert(command.end(), argv.begin(), argv.end());
  if (command.empty()) throw std::invalid_argument("a child process needs a program");
  return command;
}

// The address sanitizer must accept a library loaded before its runtime.
std::vector<std::string> ChildEnv(const std::vector<std::string>& extra, bool launched) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) env.push_back(*e);
  for (const std::string& entry : extra) {
    if (launched && entry.compare(0, 11, "LD_PRELOAD=") == 0) {
      SetForEmulatedProgram(env, entry);
    } else {
      SetEntry(env, entry);
    }
  }
  if (!Lookup(env, "LD_PRELOAD").empty() || !Lookup(env, "QEMU_SET_ENV").empty()) {
    std::string asan = Lookup(env, "ASAN_OPTIONS");
    SetEntry(env, "ASAN_OPTIONS=" + asan + (asan.empty() ? "" : ":") + "verify_asan_link_order=0");
  }
  return env;
}

std::vector<char*> ExecPointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace zel::test
