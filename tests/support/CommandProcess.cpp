#include "tests/support/CommandProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "tests/support/Patience.h"

namespace tavix::test {

namespace {

using Clock = std::chrono::steady_clock;

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
  }

  osa::Descriptor reading;
  osa::Descriptor writing;
};

// What exec(3) wants, made before the fork: between the two nothing may be allocated.
class Image {
 public:
  Image(const std::vector<std::string>& words, const Variables& variables) : _words(words) {
    for (char** at = environ; *at != nullptr; ++at) {
      const std::string entry = *at;
      if (variables.count(entry.substr(0, entry.find('='))) == 0) _entries.push_back(entry);
    }
    for (const auto& [name, value] : variables) {
      if (value) _entries.push_back(name + "=" + *value);
    }
    for (std::string& word : _words) _wordPointers.push_back(word.data());
    for (std::string& entry : _entries) _entryPointers.push_back(entry.data());
    _wordPointers.push_back(nullptr);
    _entryPointers.push_back(nullptr);
  }

  [[noreturn]] void Run(const char* directory, pid_t parent) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent && chdir(directory) == 0)
      execvpe(_wordPointers.front(), _wordPointers.data(), _entryPointers.data());
    _exit(127);
  }

 private:
  std::vector<std::string> _words;
  std::vector<std::string> _entries;
  std::vector<char*> _wordPointers;
  std::vector<char*> _entryPointers;
};

// A program that no longer reads is no failure of the test. What is pending for this thread alone is taken back.
ssize_t WriteWithoutSignal(int descriptor, std::string_view text) {
  sigset_t pipe, before;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  const ssize_t count = write(descriptor, text.data(), text.size());
  const int error = errno;
  const timespec now{};
  while (count < 0 && error == EPIPE && sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) continue;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return count;
}

}  // namespace

CommandProcess::CommandProcess(const std::string& directory, const std::vector<std::string>& words,
                               const Variables& variables, Streams streams)
    : _isTerminal(streams == Streams::kTerminal) {
  if (_isTerminal) {
    StartOnTerminal(directory, words, variables);
  } else {
    StartOnPipes(directory, words, variables, streams == Streams::kPipes);
  }
}

CommandProcess::~CommandProcess() {
  if (!_status) {
    kill(_id, SIGKILL);
    waitpid(_id, nullptr, 0);
  }
  const std::string all = _outputText + _errorText;
  if (all.find("Sanitizer") != std::string::npos || all.find("runtime error:") != std::string::npos)
    ADD_FAILURE() << "A sanitizer found this:\n" << all;
}

void CommandProcess::StartOnPipes(const std::string& directory, const std::vector<std::string>& words,
                                  const Variables& variables, bool isRead) {
  Pipe input, output, errors;
  if (!isRead) output.reading.Reset();  // before the program can write
  const Image image(words, variables);
  const pid_t parent = getpid();
  _id = Require(fork(), "fork");
  if (_id == 0) {
    if (dup2(input.reading.Get(), 0) < 0 || dup2(output.writing.Get(), 1) < 0 || dup2(errors.writing.Get(), 2) < 0)
      _exit(126);
    image.Run(directory.c_str(), parent);
  }
  _inputStream = std::move(input.writing);
  _output = std::move(output.reading);
  _errors = std::move(errors.reading);
  Require(fcntl(_inputStream.Get(), F_SETFL, O_NONBLOCK), "fcntl");
}

// The terminal neither shows what is typed nor changes line ends.
void CommandProcess::StartOnTerminal(const std::string& directory, const std::vector<std::string>& words,
                                     const Variables& variables) {
  const Image image(words, variables);
  const pid_t parent = getpid();
  termios settings{};
  settings.c_iflag = ICRNL;
  settings.c_cflag = CS8 | CREAD;
  settings.c_lflag = ICANON | ISIG;
  settings.c_cc[VINTR] = 3;
  settings.c_cc[VEOF] = 4;
  winsize size{24, 100, 0, 0};
  int main = -1;
  _id = Require(forkpty(&main, nullptr, &settings, &size), "forkpty");
  if (_id == 0) image.Run(directory.c_str(), parent);
  _output = osa::Descriptor(main);
  _inputStream = osa::Descriptor(Require(dup(main), "dup"));
  Require(fcntl(main, F_SETFD, FD_CLOEXEC), "fcntl");
  Require(fcntl(_inputStream.Get(), F_SETFD, FD_CLOEXEC), "fcntl");
}

void CommandProcess::AwaitOutput(const std::string& text) {
  Await("did not write \"" + text + "\"", [&] { return _outputText.find(text) != std::string::npos; });
}

void CommandProcess::AwaitErrors(const std::string& text) {
  Await("did not write \"" + text + "\" to standard error", [&] { return _errorText.find(text) != std::string::npos; });
}

int CommandProcess::AwaitEnd() {
  if (_status) return *_status;
  Await("did not end", [&] { return HasEnded(); });
  int status = 0;
  Require(waitpid(_id, &status, 0), "waitpid");
  _status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return *_status;
}

void CommandProcess::Signal(int signal) const {
  if (!_status) kill(_id, signal);
}

void CommandProcess::Await(const std::string& what, const std::function<bool()>& condition) {
  const Clock::time_point end = Clock::now() + kPatience;
  while (!condition()) {
    if (HasEnded() || Clock::now() > end)
      throw std::runtime_error("The program " + what + (HasEnded() ? " before its end" : " in time") + ". Output:\n" +
                               _outputText + "\nErrors:\n" + _errorText);
    Step();
  }
}

void CommandProcess::Step() {
  const bool hasInput = _sent < _input.size();
  if (!hasInput && _endsInput) _inputStream.Reset();
  pollfd streams[] = {
      {_output.Get(), POLLIN, 0}, {_errors.Get(), POLLIN, 0}, {hasInput ? _inputStream.Get() : -1, POLLOUT, 0}};
  if (poll(streams, 3, 1000) <= 0) return;
  if (streams[0].revents) Receive(_output, _outputText);
  if (streams[1].revents) Receive(_errors, _errorText);
  if (streams[2].revents) SendInput();
}

void CommandProcess::SendInput() {
  const ssize_t count = WriteWithoutSignal(_inputStream.Get(), std::string_view(_input).substr(_sent));
  if (count > 0) {
    _sent += static_cast<size_t>(count);
  } else if (errno != EINTR && errno != EAGAIN) {
    _sent = _input.size();
  }
}

// A terminal whose programs are gone fails to be read.
void CommandProcess::Receive(osa::Descriptor& stream, std::string& text) {
  char part[16 * 1024];
  const ssize_t count = read(stream.Get(), part, sizeof part);
  if (count > 0) {
    text.append(part, static_cast<size_t>(count));
  } else if (count == 0 || errno != EINTR) {
    stream.Reset();
  }
}

Outcome RunToEnd(const std::string& directory, const std::vector<std::string>& words, const std::string& input,
                 const Variables& variables) {
  CommandProcess process(directory, words, variables);
  process.Write(input);
  process.EndInput();
  const int status = process.AwaitEnd();
  return {status, process.GetOutput(), process.GetErrors()};
}

}  // namespace tavix::test
