#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavix::test {

// The kernel's numbers of the threads of this process that have that name.
std::vector<pid_t> FindThreads(const std::string& name);

// Waits until a thread of this process sleeps, as opposed to being on its way.
void AwaitAsleep(pid_t thread);

}  // namespace tavix::test
