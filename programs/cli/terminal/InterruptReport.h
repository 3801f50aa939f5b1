#pragma once

#include <list>
#include <string>

namespace tavix::programs::cli {

// As long as it lives, a signal that ends the program, of SIGINT, SIGTERM, SIGQUIT and SIGHUP, is reported on standard
// error, and the program's exit status is 128 and the signal's number. Signals that are ignored stay so. A standard
// output that nobody reads any more is a failure to write, and ends nothing.
//
// Threads: one, and one such object at a time.
class InterruptReport {
 public:
  enum class HangUp {
    kEnds,
    kIgnored,  // by the program's children, too
  };

  explicit InterruptReport(HangUp hangUp);
  ~InterruptReport();

  InterruptReport(const InterruptReport&) = delete;
  InterruptReport& operator=(const InterruptReport&) = delete;

  // What is reported from now on, behind the program's name; nothing at first. hint: may be empty.
  void Set(const std::string& reason, const std::string& hint);

 private:
  std::list<std::string> _texts;  // a handler may be about to write an earlier one
};

// Whether the program ignores it.
bool IsSignalIgnored(int signal);

}  // namespace tavix::programs::cli
