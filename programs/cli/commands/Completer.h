#pragma once

#include <string>
#include <vector>

#include "programs/cli/terminal/GlobalOptions.h"

namespace CLI {
class App;
}

namespace tavix::programs::cli {

class CommandLine;

// Answers the shells' completions: "__complete WORD..." prints what the last word may become, a candidate a line.
// Groups and keys are read from the store that the other words name. It never says anything else, and it is done after
// 300 ms whatever the store does: somebody is waiting with a finger on a key.
class Completer {
 public:
  static bool IsAsked(const std::vector<std::string>& words);

  // line: outlives this.
  explicit Completer(const CommandLine& line) : _line(line) {}

  // Returns an ExitCode, always kExitDone.
  int Run(const std::vector<std::string>& words);

 private:
  void ReadWords(const std::vector<std::string>& words);
  void ReadOption(std::vector<std::string>::const_iterator& at, std::vector<std::string>::const_iterator end);
  void Complete();
  void CompleteOptionValue(const std::string& option);
  void CompleteSettings();
  void CompleteBracketed();
  void CompletePositional();
  void CompleteResources();
  void CompleteConsumers();
  std::vector<std::string> ReadGroups() const;
  std::vector<std::string> ReadKeys(const std::string& group) const;
  void Offer(const std::vector<std::string>& candidates, const std::string& prefix = std::string()) const;

  const CommandLine& _line;
  GlobalOptions _options;
  const CLI::App* _command = nullptr;     // the innermost that was named
  std::vector<std::string> _positionals;  // of it, without the last word
  std::string _pending;                   // an option whose value is to be completed
  std::string _prefix;                    // of the last word, in front of what is to be completed
  std::string _current;
};

}  // namespace tavix::programs::cli
