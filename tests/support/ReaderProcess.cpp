#include "tests/support/ReaderProcess.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tavix::test {

namespace {

constexpr int kMaxDescriptors = 4096;  // the lowest free one is given out, and no test has that many

// The child holds a copy of every other descriptor of the test, which would keep other connections open.
void CloseAllBut(int descriptor) {
  for (int other = 0; other < kMaxDescriptors; ++other) {
    if (other != descriptor) close(other);
  }
}

// Only what is safe in a signal handler: other threads may have held locks when the process was forked.
[[noreturn]] void ReadToEnd(int descriptor, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(126);
  CloseAllBut(descriptor);
  char part[16 * 1024];
  for (ssize_t count = 1; count > 0 || (count < 0 && errno == EINTR);) count = read(descriptor, part, sizeof part);
  _exit(0);
}

}  // namespace

ReaderProcess::ReaderProcess(ProtocolClient client) {
  client.WaitForEver();
  const pid_t parent = getpid();
  _id = fork();
  if (_id < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (_id == 0) ReadToEnd(client.GetDescriptor(), parent);
}

ReaderProcess::~ReaderProcess() {
  if (_id < 0) return;
  kill(_id, SIGKILL);
  waitpid(_id, nullptr, 0);
}

void ReaderProcess::Stop() {
  kill(_id, SIGSTOP);
  int status = 0;
  if (waitpid(_id, &status, WUNTRACED) < 0) throw std::system_error(errno, std::generic_category(), "waitpid");
}

void ReaderProcess::AwaitEnd() {
  kill(_id, SIGCONT);
  if (waitpid(_id, nullptr, 0) < 0) throw std::system_error(errno, std::generic_category(), "waitpid");
  _id = -1;
}

}  // namespace tavix::test
