#include "tests/support/ServiceProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "tavix/osa/Descriptor.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

namespace {

int Require(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

// Debian has servers where only an administrator's PATH looks.
std::string FindProgram(const std::string& name) {
  for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/", "/usr/local/sbin/", "/usr/local/bin/"}) {
    if (access((folder + name).c_str(), X_OK) == 0) return folder + name;
  }
  throw std::runtime_error("There is no program " + name);
}

// Between fork and exec only what is safe in a signal handler may be called: other threads may have held locks.
[[noreturn]] void RunProgram(const char* directory, char* const* arguments, int output, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(126);
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (chdir(directory) == 0 && dup2(input, 0) >= 0 && dup2(output, 1) >= 0 && dup2(output, 2) >= 0)
    execv(arguments[0], arguments);
  _exit(127);
}

}  // namespace

ServiceProcess::ServiceProcess(const std::string& directory, const std::vector<std::string>& words,
                               const std::string& logFile)
    : _logFile(logFile) {
  std::vector<std::string> all = words;
  all[0] = FindProgram(all[0]);
  std::vector<char*> pointers;
  for (std::string& word : all) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  const osa::Descriptor log(Require(open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), "open"));
  _logStart = static_cast<std::size_t>(lseek(log.Get(), 0, SEEK_END));
  const pid_t parent = getpid();
  _id = Require(fork(), "fork");
  if (_id == 0) RunProgram(directory.c_str(), pointers.data(), log.Get(), parent);
}

ServiceProcess::~ServiceProcess() {
  Signal(SIGKILL);
  if (!_hasEnded) waitpid(_id, nullptr, 0);
}

bool ServiceProcess::AwaitOutput(const std::string& text) {
  // Looked for once more after the end: it may have written the text as its last.
  const auto isThere = [&] { return GetOutput().find(text) != std::string::npos; };
  if (!Eventually([&] { return isThere() || HasEnded(); }))
    throw std::runtime_error("Not written in time: \"" + text + "\", but\n" + GetOutput());
  return !HasEnded() && isThere();
}

std::string ServiceProcess::GetOutput() const {
  std::ifstream file(_logFile, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(_logStart));
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void ServiceProcess::Signal(int signal) {
  if (!HasEnded()) kill(_id, signal);
}

void ServiceProcess::AwaitEnd() {
  if (!Eventually([&] { return HasEnded(); })) throw std::runtime_error("No end in time:\n" + GetOutput());
}

bool ServiceProcess::HasEnded() {
  if (!_hasEnded) _hasEnded = waitpid(_id, nullptr, WNOHANG) == _id;
  return _hasEnded;
}

unsigned short FindFreePort() {
  return ListeningSocket(ListeningSocket::kNotListening).GetPort();
}

}  // namespace tavix::test
