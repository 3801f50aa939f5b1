#include "tests/support/DaemonProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Patience.h"
#include "tests/support/Threads.h"

namespace tavix::test {

namespace {

constexpr char kListening[] = ": listening on ";

int Require(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

struct Pipe {
  Pipe() {
    int ends[2];
    Require(pipe2(ends, O_CLOEXEC), "pipe");
    reading = osa::Descriptor(ends[0]);
    writing = osa::Descriptor(ends[1]);
    Require(fcntl(ends[0], F_SETFL, O_NONBLOCK), "fcntl");
  }

  osa::Descriptor reading;
  osa::Descriptor writing;
};

// The machine of a test may stand still while the disk syncs: then the daemon reports that, rightly, in any test.
std::string WithoutSlowDisk(const std::string& log) {
  std::string rest;
  for (size_t begin = 0, end = 0; begin < log.size(); begin = end) {
    end = std::min(log.find('\n', begin), log.size() - 1) + 1;
    const std::string line = log.substr(begin, end - begin);
    const bool isSlowDisk = line.find(": the disk takes long to sync the last changes") != std::string::npos ||
                            line.find(": the disk syncs changes again") != std::string::npos;
    if (!isSlowDisk) rest += line;
  }
  return rest;
}

bool LimitDescriptors(const std::optional<unsigned long>& count) {
  if (!count) return true;
  const rlimit limit{*count, *count};
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// The hard limit stays, so that a test can raise the limit again.
bool LimitFileSize(const std::optional<unsigned long>& size) {
  rlimit limit{};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
  if (size) limit.rlim_cur = *size;
  return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

// Between fork and exec only what is safe in a signal handler may be called: other threads may have held locks.
[[noreturn]] void RunProgram(const char* directory, char* const* arguments, const ProcessLimits& limits, int output,
                             int errors, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(126);
#ifdef __SANITIZE_THREAD__
  signal(SIGXFSZ, SIG_IGN);  // the sanitizer's runtime fills a file before the daemon can say so itself
#endif
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (chdir(directory) == 0 && dup2(input, 0) >= 0 && dup2(output, 1) >= 0 && dup2(errors, 2) >= 0 &&
      LimitFileSize(limits.fileSize) && LimitDescriptors(limits.descriptors)) {
    execv(arguments[0], arguments);
  }
  _exit(127);
}

std::vector<std::string> AddressesIn(const std::string& output) {
  std::vector<std::string> addresses;
  for (size_t at = 0; (at = output.find(kListening, at)) != std::string::npos;) {
    at += sizeof kListening - 1;
    const size_t end = output.find('\n', at);
    if (end != std::string::npos) addresses.push_back(output.substr(at, end - at));
  }
  return addresses;
}

// A shell that starts the daemon has its own arguments. A check would tell of the configuration, and changes nothing.
// What the arguments say of the log's level stands behind, and counts.
std::vector<std::string> Configured(const std::string& program, std::vector<std::string> arguments) {
  const bool isDaemon = std::filesystem::path(program).filename() == "tavix-settings-server";
  const bool isConfigured = std::any_of(arguments.begin(), arguments.end(), [](const std::string& word) {
    return word.rfind("--config", 0) == 0 || word == "--check";
  });
  if (isDaemon && !isConfigured)
    arguments.insert(arguments.begin(), {"--config", "/dev/null", "--log-level", "warning"});
  return arguments;
}

bool HoldsSanitizerReport(const std::string& errors) {
  return errors.find("Sanitizer") != std::string::npos || errors.find("runtime error:") != std::string::npos;
}

}  // namespace

DaemonProcess::DaemonProcess(const std::string& program, const std::string& directory,
                             const std::vector<std::string>& arguments, const ProcessLimits& limits) {
  Pipe output;
  Pipe errors;
  const std::vector<std::string> words = Configured(program, arguments);
  std::vector<char*> pointers{const_cast<char*>(program.c_str())};
  for (const std::string& argument : words) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  const pid_t parent = getpid();
  _id = Require(fork(), "fork");
  if (_id == 0)
    RunProgram(directory.c_str(), pointers.data(), limits, output.writing.Get(), errors.writing.Get(), parent);
  _outputPipe = std::move(output.reading);
  _errorPipe = std::move(errors.reading);
  _collector = std::thread(&DaemonProcess::Collect, this);
}

DaemonProcess::~DaemonProcess() {
  try {
    if (!_status && Stop() != 0) ADD_FAILURE() << "The daemon ended with status " << *_status << "\n" << GetErrors();
  } catch (const std::exception& exception) {
    ADD_FAILURE() << exception.what();
    Signal(SIGKILL);
    waitpid(_id, nullptr, 0);
  }
  _collector.join();
  if (HoldsSanitizerReport(_errors)) ADD_FAILURE() << "A sanitizer found this in the daemon:\n" << _errors;
}

void DaemonProcess::Collect() {
  while (true) {
    pollfd pipes[] = {{_outputPipe.Get(), POLLIN, 0}, {_errorPipe.Get(), POLLIN, 0}};
    if (pipes[0].fd < 0 && pipes[1].fd < 0) return;
    if (poll(pipes, 2, -1) < 0) continue;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      if (!Receive(_outputPipe, _output)) _outputPipe.Reset();
      if (!Receive(_errorPipe, _errors)) _errorPipe.Reset();
    }
    _changed.notify_all();
  }
}

// All that is there. False at the end. Whoever reads holds the lock.
bool DaemonProcess::Receive(const osa::Descriptor& pipe, std::string& text) {
  char part[16 * 1024];
  ssize_t count;
  while ((count = read(pipe.Get(), part, sizeof part)) != 0) {
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
  return false;
}

template <class Condition>
void DaemonProcess::Await(const char* what, Condition condition) const {
  std::unique_lock<std::mutex> lock(_mutex);
  const auto hasEnded = [&] { return _outputPipe.Get() < 0 && _errorPipe.Get() < 0; };
  _changed.wait_for(lock, kPatience, [&] { return condition() || hasEnded(); });
  if (!condition())
    throw std::runtime_error(std::string("The daemon ") + what + (hasEnded() ? " before its end" : " in time") +
                             ". Output:\n" + _output + "\nErrors:\n" + _errors);
}

std::vector<std::string> DaemonProcess::AwaitAddresses(size_t count) const {
  std::vector<std::string> addresses;
  Await("did not say that it listens", [&] {
    addresses = AddressesIn(_output);
    return addresses.size() >= count;
  });
  return addresses;
}

unsigned short DaemonProcess::GetPort() const {
  const std::string address = AwaitAddresses().front();
  return static_cast<unsigned short>(std::stoul(address.substr(address.rfind(':') + 1)));
}

std::string DaemonProcess::GetOutput() const {
  std::lock_guard<std::mutex> lock(_mutex);
  Receive(_outputPipe, _output);
  _changed.notify_all();
  return _output;
}

std::string DaemonProcess::GetErrors() const {
  std::lock_guard<std::mutex> lock(_mutex);
  Receive(_errorPipe, _errors);
  _changed.notify_all();
  return WithoutSlowDisk(_errors);
}

void DaemonProcess::AwaitErrors(const std::string& text) const {
  const std::string what = "did not write \"" + text + "\"";
  Await(what.c_str(), [&] { return _errors.find(text) != std::string::npos; });
}

void DaemonProcess::AwaitIdle() const {
  AwaitAllAsleep(_id);
}

void DaemonProcess::Signal(int signal) const {
  if (!_status) kill(_id, signal);
}

int DaemonProcess::AwaitEnd() {
  if (_status) return *_status;
  Await("did not end", [&] { return _outputPipe.Get() < 0 && _errorPipe.Get() < 0; });
  int status = 0;
  Require(waitpid(_id, &status, 0), "waitpid");
  _status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return *_status;
}

int DaemonProcess::Stop(int signal) {
  Signal(signal);
  return AwaitEnd();
}

}  // namespace tavix::test
