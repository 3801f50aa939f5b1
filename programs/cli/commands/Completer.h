#pragma once

#include <functional>
#include <string>
#include <vector>

#include "programs/cli/terminal/GlobalOptions.h"
#include "programs/common/client/Session.h"

namespace CLI {
class App;
}

namespace tavix::programs::cli {

class CommandLine;

// Answers the shells' completions: "__complete WORD..." prints what the last word may become, a candidate a line, with
// a tab and its description behind it where it has one. A line of a tab and "files" says that it may be a file's name.
//
// Groups and keys are read from the store that the other words name. A store may be large: only groups that begin with
// the word are asked for, and they are offered path by path, up to the next '/'. A store is given 250 ms; then nothing
// of it is offered: somebody is waiting with a finger on a key.
//
// Threads: one.
class Completer {
 public:
  static bool IsAsked(const std::vector<std::string>& words);

  // line: outlives this.
  explicit Completer(const CommandLine& line) : _line(line) {}

  // Returns an ExitCode, always kExitDone.
  int Run(const std::vector<std::string>& words);

  struct Candidate {
    std::string word;
    std::string description = {};
  };
  using Candidates = std::vector<Candidate>;

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
  void CompleteKept();
  void CompleteOptionOfBridge(const std::string& option);
  std::vector<std::string> ReadKept(const std::string& feature, const std::string& request,
                                    const std::string& prefix) const;
  void ReadStore(const std::function<void(Session&)>& read) const;
  std::vector<std::string> ReadPaths(const std::string& word) const;
  std::vector<std::string> ReadKeys(const std::string& group) const;
  void Offer(const Candidates& candidates) const;
  void Offer(const std::vector<std::string>& words) const;
  void OfferFiles() const;

  const CommandLine& _line;
  GlobalOptions _options;
  const CLI::App* _command = nullptr;     // the innermost that was named
  std::vector<std::string> _positionals;  // of it, without the last word
  std::string _bridgeRuntime;             // the folder that --runtime names
  std::string _pending;                   // an option whose value is to be completed
  std::string _prefix;                    // of the last word, in front of what is to be completed
  std::string _current;
};

}  // namespace tavix::programs::cli
