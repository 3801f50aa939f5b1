#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tavix::test {

// The kernel's numbers of the threads of this process that have that name.
std::vector<pid_t> FindThreads(const std::string& name);

// Wait until a thread of this process sleeps, or all threads of any process do so at one time, as opposed to being on
// their way. False when that does not come.
bool AwaitAsleep(pid_t thread);
bool AwaitAllAsleep(pid_t process);

// What tells one sleep of a thread of this process from another; empty when it runs or is gone.
std::string LookAtThread(pid_t thread);

// Waits until that many looks in a row show the same, and not nothing. False when that does not come.
constexpr int kLooksAtOne = 50;
bool AwaitSameLook(const std::function<std::string()>& look, int times);

}  // namespace tavix::test
