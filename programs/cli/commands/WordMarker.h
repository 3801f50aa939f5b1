#pragma once

#include <string>
#include <vector>

#include "programs/cli/text/Assignments.h"

namespace CLI {
class App;
}

namespace tavix::programs::cli {

// Marks the words of a command line that are values, so that the parser takes them as they are: what looks like one of
// its own values (ParserWords.h), all that stands behind "--", and in "set" the VALUE behind GROUP KEY.
//
// Threads: one.
class WordMarker {
 public:
  // program: the commands and their options; outlives this.
  explicit WordMarker(const CLI::App& program) : _command(&program) {}

  // The words without "--". Done once for each object.
  std::vector<std::string> Mark(const std::vector<std::string>& words);

 private:
  std::string MarkNext(const std::string& word);
  bool TakesNextWord(const std::string& option) const;
  bool IsValue() const { return _place == AssignmentPlace::kValue; }
  void Step(const std::string& word);

  const CLI::App* _command;  // the innermost that was named
  AssignmentPlace _place = AssignmentPlace::kStart;
  bool _isOptionValue = false;  // the next word belongs to the option in front of it
  bool _isAsItIs = false;       // behind "--"
};

}  // namespace tavix::programs::cli
