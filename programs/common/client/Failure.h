#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace tavix::programs {

// What the program ends with.
enum ExitCode : int {
  kExitDone = 0,
  kExitNo = 1,               // not set, differs, waited in vain
  kExitUsage = 2,            // the command line, a file that it names and that can't be read, nobody to confirm
  kExitNoServer = 3,         // no server, lost, timed out; no file with --local
  kExitConditionFailed = 4,  // --if, or a change by somebody else
  kExitRefused = 5,          // a restricted group
  kExitBadInput = 6,         // a text that can't be parsed
  kExitNotApplied = 7,       // the store does not hold what was written, or a file can't be written
  kExitReverted = 8,         // a change on trial was taken back
  kExitNotKept = 9,          // the store holds what was written, and can't save it at the moment
  kExitInterrupted = 130,    // Ctrl-C
};

// Ends a command: the program prints "tavix-settings: " and the text, then the hint on a line of its own, to standard
// error, and exits with the code. An empty text prints nothing. A plain value.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& text, std::string hint = std::string())
      : std::runtime_error(text), _code(code), _hint(std::move(hint)) {}

  ExitCode GetCode() const { return _code; }
  const std::string& GetHint() const { return _hint; }

 private:
  ExitCode _code;
  std::string _hint;
};

}  // namespace tavix::programs
