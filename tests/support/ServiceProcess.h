#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace tavix::test {

// Somebody else's server as a child process, whose output goes to a file.
//
// Threads: made on the test's main thread: the child is killed when the thread that made it ends.
// Errors:  what waits throws std::runtime_error after kPatience, with the file's text.
class ServiceProcess {
 public:
  // directory: what it runs in. words: the program, which is looked for in PATH and where system programs are, and its
  // arguments. logFile: what it writes is appended there.
  ServiceProcess(const std::string& directory, const std::vector<std::string>& words, const std::string& logFile);

  // Kills it.
  ~ServiceProcess();

  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  pid_t GetId() const { return _id; }

  // Waits until it wrote that text, since it was started. False when it ended before.
  bool AwaitOutput(const std::string& text);

  std::string GetOutput() const;

  // Does nothing once it has ended.
  void Signal(int signal);

  void AwaitEnd();

 private:
  bool HasEnded();

  pid_t _id = -1;
  bool _hasEnded = false;
  const std::string _logFile;
  std::size_t _logStart = 0;
};

// A port of 127.0.0.1 that was free a moment ago.
unsigned short FindFreePort();

}  // namespace tavix::test
