#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tavix::test {

// Stops a child until it gets SIGCONT. Returns once all its threads stand still: on a busy machine some go on for a
// while after the signal was sent.
inline void StopProcess(pid_t child) {
  if (kill(child, SIGSTOP) < 0) throw std::system_error(errno, std::generic_category(), "kill");
  pid_t stopped = 0;
  do {
    stopped = waitpid(child, nullptr, WUNTRACED);
  } while (stopped < 0 && errno == EINTR);
  if (stopped < 0) throw std::system_error(errno, std::generic_category(), "waitpid");
}

}  // namespace tavix::test
