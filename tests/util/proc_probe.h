// Looks at this process through /proc for the util tests: its threads, the
// system call a thread waits in, its eventfds and their counters. Stateless.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zel::util::testkit {

// Number of threads of this process. Sanitizer runtimes add a thread of their
// own when the first thread starts: call SettleRuntimeThreads() before
// comparing counts.
size_t ThreadCount();
void SettleRuntimeThreads();
// True while thread `tid` of this process exists.
bool TaskExists(pid_t tid);
// Descriptors of this process that are eventfds.
std::vector<int> EventFds();
// The counter of an eventfd of this process.
uint64_t EventFdCount(int fd);
// The eight command characters as the counter value the kernel keeps.
uint64_t CommandValue(const std::string& command);
// True while thread `tid` of this process waits in select.
bool InSelect(pid_t tid);
pid_t CurrentTid();

}  // namespace zel::util::testkit
