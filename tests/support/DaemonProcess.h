#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// What the kernel lets the child have.
struct ProcessLimits {
  std::optional<unsigned long> descriptors;  // that may be open at a time
  std::optional<unsigned long> fileSize;     // in bytes; writing more fails, as on a full disk
};

// The real tavix-settings-server, or another program that reports its addresses as it does, as a child process, whose
// output is collected from its start to its end. Unless the arguments name a configuration, the daemon has an empty
// one, not the one that may be installed on the machine, and it logs nothing but warnings and errors.
//
// Threads: made on the test's main thread: the child is killed when the thread that made it ends.
// Errors:  what waits throws std::runtime_error after kPatience, with what the daemon wrote. A daemon that is still
// there in
//          the destructor is ended by SIGTERM and must exit with status 0, else the test fails. What a sanitizer wrote
//          fails the test in any case.
class DaemonProcess {
 public:
  // directory: what the program runs in.
  DaemonProcess(const std::string& program, const std::string& directory, const std::vector<std::string>& arguments,
                const ProcessLimits& limits = {});
  ~DaemonProcess();

  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t GetId() const { return _id; }

  // The addresses that it says it listens on, HOST:PORT each, once there are that many.
  std::vector<std::string> AwaitAddresses(size_t count = 1) const;

  // The port of its first address.
  unsigned short GetPort() const;

  // All that it wrote to standard output and standard error before the call; GetErrors without lines on a slow disk.
  std::string GetOutput() const;
  std::string GetErrors() const;

  // Waits until it wrote that text to standard error.
  void AwaitErrors(const std::string& text) const;

  // Waits until all its threads sleep: it has read what has arrived, and what is sent from now on arrives on its own.
  void AwaitIdle() const;

  void Signal(int signal) const;

  // Waits for its end and for all that it wrote. The exit status; 128 and the signal's number when a signal ended it.
  int AwaitEnd();

  // Sends the signal and waits for the end.
  int Stop(int signal = SIGTERM);

 private:
  void Collect();
  static bool Receive(const osa::Descriptor& pipe, std::string& text);
  template <class Condition>
  void Await(const char* what, Condition condition) const;

  pid_t _id = -1;
  std::optional<int> _status;

  mutable std::mutex _mutex;  // guards what follows
  mutable std::condition_variable _changed;
  mutable std::string _output;
  mutable std::string _errors;
  osa::Descriptor _outputPipe;  // closed by the collector once there is no more to come
  osa::Descriptor _errorPipe;

  std::thread _collector;
};

}  // namespace tavix::test
