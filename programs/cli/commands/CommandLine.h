#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "programs/cli/commands/CommandOptions.h"
#include "programs/cli/commands/Context.h"

namespace tavix::programs::cli {

// The commands with their options, and the parser over them.
//
// Threads: one.
class CommandLine {
 public:
  // What a command does; returns an ExitCode.
  using Action = std::function<int(Context&)>;

  // Knows all commands.
  CommandLine();
  ~CommandLine();

  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Adds a command to the program, or to a command that only groups others; the caller declares its options.
  // Aliases stand behind the name, each behind a comma.
  CommandOptions Add(const std::string& names, const std::string& description, Action action);
  CommandOptions AddGroup(const std::string& name, const std::string& description);
  CommandOptions AddTo(const CommandOptions& group, const std::string& names, const std::string& description,
                       Action action);

  // Parses the words behind the program's name. The command to be run; help and the version are commands, too. Throws
  // Failure, kExitUsage.
  Action Parse(std::vector<std::string> words, GlobalOptions& options);

  // What a command's help shows; the program's own for an empty name. Throws Failure for one that does not exist.
  std::string GetHelp(const std::string& command) const;

  // The commands and their options, to be looked at.
  const CLI::App& GetApp() const { return *_app; }

 private:
  void AddGlobalOptions();
  void ReadGlobalOptions(GlobalOptions& options) const;
  Action ParseProtected(std::vector<std::string> words);
  [[noreturn]] void FailUnknown(const std::string& word) const;
  [[noreturn]] void FailUsage(const std::string& text) const;

  struct GlobalWords;
  std::unique_ptr<GlobalWords> _words;
  std::unique_ptr<CLI::App> _app;
  Action _action;
};

}  // namespace tavix::programs::cli
