#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// Variables that a child gets beside those of the test; nothing removes one.
using Variables = std::map<std::string, std::optional<std::string>>;

// A program of a shell's prompt as a child process: on pipes, or with all three standard streams on a terminal.
// Of kUnread, nobody reads standard output from the start on.
//
// Threads: made on the test's main thread: the child is killed when the thread that made it ends.
// Errors:  what waits throws std::runtime_error after kPatience, with what the program wrote. A program that is still
// there in
//          the destructor is killed. What a sanitizer wrote fails the test.
class CommandProcess {
 public:
  enum class Streams { kPipes, kUnread, kTerminal };

  // directory: what the program runs in. words: the program's path and its arguments.
  CommandProcess(const std::string& directory, const std::vector<std::string>& words, const Variables& variables = {},
                 Streams streams = Streams::kPipes);
  ~CommandProcess();

  CommandProcess(const CommandProcess&) = delete;
  CommandProcess& operator=(const CommandProcess&) = delete;

  // To its standard input, which takes as much as the program reads while the test waits for something.
  void Write(const std::string& text) { _input += text; }

  // Its standard input ends behind what was written. Not on a terminal.
  void EndInput() { _endsInput = true; }

  // Nobody will read its standard output any more. What it has written by then is lost without its knowledge.
  void CloseOutput() { _output.Reset(); }

  // Waits until that text was written to standard output or standard error. A terminal's is all output.
  void AwaitOutput(const std::string& text);
  void AwaitErrors(const std::string& text);

  // Waits for its end. The exit status; 128 and the signal's number when a signal ended it.
  int AwaitEnd();

  void Signal(int signal) const;

  // So far.
  const std::string& GetOutput() const { return _outputText; }
  const std::string& GetErrors() const { return _errorText; }

 private:
  void StartOnPipes(const std::string& directory, const std::vector<std::string>& words, const Variables& variables,
                    bool isRead);
  void StartOnTerminal(const std::string& directory, const std::vector<std::string>& words, const Variables& variables);
  void Await(const std::string& what, const std::function<bool()>& condition);
  void Step();
  void SendInput();
  static void Receive(osa::Descriptor& stream, std::string& text);
  bool HasEnded() const { return _output.Get() < 0 && _errors.Get() < 0; }

  pid_t _id = -1;
  std::optional<int> _status;
  bool _isTerminal = false;
  bool _endsInput = false;
  std::string _input;
  size_t _sent = 0;  // of the input
  std::string _outputText;
  std::string _errorText;
  osa::Descriptor _inputStream;
  osa::Descriptor _output;
  osa::Descriptor _errors;
};

// What came of a program that ran to its end.
struct Outcome {
  int status = 0;
  std::string output;
  std::string errors;
};

Outcome RunToEnd(const std::string& directory, const std::vector<std::string>& words, const std::string& input = {},
                 const Variables& variables = {});

}  // namespace tavix::test
