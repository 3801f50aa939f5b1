#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tavix::test {

// The kernel's numbers of the threads of this process that have that name.
std::vector<pid_t> FindThreads(const std::string& name);

// Wait until a thread of this process sleeps, or all threads of any process do so at one time, as opposed to being on
// their way. They throw std::runtime_error when that does not come.
void AwaitAsleep(pid_t thread);
void AwaitAllAsleep(pid_t process);

// What tells one sleep of a thread of this process from another; empty when it runs or is gone.
std::string LookAtThread(pid_t thread);

// A thread may sleep for a moment on its way, for a lock of the allocator for example: so often in a row the very same
// sleep has to be found.
constexpr int kLooksAtOne = 50;

// Waits until that many looks in a row show the same, and not nothing. Throws std::runtime_error when that does not
// come.
void AwaitSameLook(const std::function<std::string()>& look, int times);

}  // namespace tavix::test
