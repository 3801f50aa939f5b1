#include "programs/cli/terminal/ChildProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

namespace {

// Ignores interrupts as long as it lives.
class InterruptsIgnored {
 public:
  InterruptsIgnored() : _before(std::signal(SIGINT, SIG_IGN)) {}
  ~InterruptsIgnored() { std::signal(SIGINT, _before); }

  InterruptsIgnored(const InterruptsIgnored&) = delete;
  InterruptsIgnored& operator=(const InterruptsIgnored&) = delete;

 private:
  void (*_before)(int);
};

// A text with a NUL byte ends there: the system's interface has no other.
[[noreturn]] void RunInChild(const std::string& command, const std::vector<std::string>& arguments,
                             const std::map<std::string, std::string>& variables) {
  std::signal(SIGINT, SIG_DFL);
  for (const auto& [name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
  std::vector<std::string> words{"sh", "-c", command, "sh"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  execv("/bin/sh", pointers.data());
  _exit(127);
}

}  // namespace

int RunShell(const std::string& command, const std::vector<std::string>& arguments,
             const std::map<std::string, std::string>& variables) {
  const InterruptsIgnored ignored;
  const pid_t child = fork();
  if (child < 0) throw Failure(kExitNotApplied, std::string("failed to start a shell: ") + std::strerror(errno));
  if (child == 0) RunInChild(command, arguments, variables);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace tavix::programs::cli
