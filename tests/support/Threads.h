#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavix::test {

// The kernel's numbers of the threads of this process that have that name.
std::vector<pid_t> FindThreads(const std::string& name);

// Wait until a thread of this process sleeps, or all threads of any process do so at one time, as opposed to being on
// their way. False when that does not come.
bool AwaitAsleep(pid_t thread);
bool AwaitAllAsleep(pid_t process);

}  // namespace tavix::test
