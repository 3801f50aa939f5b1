#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tavix::programs::cli {

// An option or positional that was declared; the command line keeps it. Each operation returns the same one.
//
// Threads: one.
class DeclaredOption {
 public:
  explicit DeclaredOption(CLI::Option& option) : _option(option) {}

  // It must be given; only together with the other; not together with the other.
  DeclaredOption Require() const;
  DeclaredOption Need(const DeclaredOption& other) const;
  DeclaredOption Exclude(const DeclaredOption& other) const;

  // Of an option with texts: it may be repeated, and takes one word each time.
  DeclaredOption TakeOneWordEach() const;

  // isGiven: becomes true when it stands on the command line; outlives the parsing.
  DeclaredOption SetWhenGiven(bool& isGiven) const;

 private:
  CLI::Option& _option;
};

// What a command takes, as the command declares it; few sources beside this know the parser, as
// its headers take long to compile. Names: "-y,--yes" for an option, "GROUP" for a positional. Targets outlive the
// parsing.
//
// Threads: one.
class CommandOptions {
 public:
  explicit CommandOptions(CLI::App& command) : _command(command) {}

  DeclaredOption AddFlag(const std::string& names, bool& target, const std::string& description) const;

  // Take any text, such as "[a]", "{}" or "-5", as it is.
  DeclaredOption AddText(const std::string& names, std::string& target, const std::string& description) const;
  DeclaredOption AddTexts(const std::string& names, std::vector<std::string>& target,
                          const std::string& description) const;

  // Seconds, which may have a fraction and a unit ("2", "0.5", "2s", "500ms"), and counts from 1 on.
  DeclaredOption AddSeconds(const std::string& names, double& target, double min, const std::string& description) const;
  DeclaredOption AddCount(const std::string& names, size_t& target, const std::string& description) const;

  // What the command's help ends with.
  void SetFooter(const std::string& text) const;

 private:
  friend class CommandLine;

  CLI::App& _command;
};

}  // namespace tavix::programs::cli
