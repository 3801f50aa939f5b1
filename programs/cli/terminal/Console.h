#pragma once

#include <string>

#include "programs/cli/terminal/GlobalOptions.h"

namespace tavix::programs::cli {

// The standard streams: data goes to standard output, talk to standard error.
//
// Threads: one.
// Errors:  Failure when standard output can't take what was printed, from whichever member finds that out first.
class Console {
 public:
  enum Color { kPlain, kGroup, kKey, kRemoved, kAdded, kMatch, kDim };

  explicit Console(const GlobalOptions& options);
  ~Console() { ClearProgress(); }

  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Data, as it is. What is printed may be kept until Flush.
  void Print(const std::string& text);
  void Flush();

  // A line of talk; --quiet keeps it back.
  void Say(const std::string& line) const;

  // A line of talk that nothing keeps back, after the program's name.
  static void Warn(const std::string& line);

  // The reason why the program fails, after its name, and a hint on a line of its own. An empty one prints nothing.
  // What standard output does not take meanwhile is lost: the reason is reported all the same.
  static void ReportFailure(const std::string& reason, const std::string& hint);

  // A line of the protocol, for somebody who wants to see them: '>' is sent, '<' is received.
  static void Trace(char direction, const std::string& line);

  // A line that the next one of its kind, or ClearProgress, takes the place of. Only on a terminal.
  void ShowProgress(const std::string& line);
  void ClearProgress();

  // The text with its color's codes around it, or bare where there are no colors.
  std::string Paint(Color color, const std::string& text) const;

  // A value for a person: as it is, but spelled where it is not UTF-8, and on a terminal where it holds control bytes.
  std::string ShowValue(const std::string& value) const;

  // The same for scripts: as it is, but spelled on a terminal where it holds control bytes.
  std::string ShowBareValue(const std::string& value) const;

  bool HasColors() const { return _hasColors; }
  bool IsOutputTerminal() const { return _isOutputTerminal; }

  // Whether somebody is there to answer.
  static bool CanAsk();

  // Asks on standard error and reads a line of standard input; whether it begins with "y". The question may have lines
  // in front.
  static bool Ask(const std::string& question);

 private:
  const bool _quiet;
  const bool _isOutputTerminal;
  const bool _isErrorTerminal;
  const bool _hasColors;
  bool _hasProgress = false;
};

}  // namespace tavix::programs::cli
