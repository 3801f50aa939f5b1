#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/programs/server/FencedBlocks.h"
#include "tests/support/CommandProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// What happens in one terminal of a document: a command behind "$ ", with lines that begin with "> " going on with it;
// "^C"; or only output, of the command that still runs.
struct TerminalStep {
  enum class Kind { kCommand, kInterrupt, kOutput };

  Kind kind = Kind::kOutput;
  std::string command;
  std::string output;
  std::string place;
};

inline std::vector<TerminalStep> StepsOf(const FencedBlock& block) {
  std::vector<TerminalStep> steps;
  for (const std::string& line : block.lines) {
    if (line.rfind("$ ", 0) == 0) {
      steps.push_back({TerminalStep::Kind::kCommand, line.substr(2), "", block.place});
    } else if (line == "^C") {
      steps.push_back({TerminalStep::Kind::kInterrupt, "", "", block.place});
    } else if (line.rfind("> ", 0) == 0 && !steps.empty()) {
      steps.back().command += "\n" + line.substr(2);
    } else {
      if (steps.empty()) steps.push_back({TerminalStep::Kind::kOutput, "", "", block.place});
      steps.back().output += line + "\n";
    }
  }
  return steps;
}

// A shell on which somebody types what a document shows, and whose output has to be what the document shows. Programs
// that it starts end when the shell does, however that ends.
class DocumentTerminal {
 public:
  // directory: that the reader is in. tools: what the terminal needs itself goes there. Both outlive it.
  DocumentTerminal(const TemporaryDirectory& directory, const TemporaryDirectory& tools, const std::string& name,
                   const std::optional<std::string>& server = std::nullopt)
      : _tools(tools),
        _idFile(name + ".id"),
        _shell(directory.GetPath(), {"bash"}, MakeEnvironment(tools, tools.Path(_idFile), server)) {
    _shell.Write("exec 2>&1\n");
  }

  // ends: the command ends by itself, or was interrupted; else it goes on until that.
  void Play(const TerminalStep& step, bool ends) {
    SCOPED_TRACE(step.place + ": " + step.command);
    if (step.kind == TerminalStep::Kind::kCommand) Type(step.command);
    if (step.kind == TerminalStep::Kind::kInterrupt) Interrupt();
    if (ends) {
      _shell.AwaitOutput(_end);
      EXPECT_EQ(_shell.GetOutput().substr(_seen.size()), step.output + _end);
      _seen = _shell.GetOutput();
    } else {
      _shell.AwaitOutput(_seen + step.output);
      _seen += step.output;
    }
  }

  // Nothing is awaited.
  void Type(const std::string& command) {
    _end = "<end of command " + std::to_string(++_commands) + ">\n";
    _shell.Write("{ " + command + "\n} </dev/null\n");
    _shell.Write("(status=$?; printf '" + _end.substr(0, _end.size() - 1) + "\\n'; exit $status)\n");
  }

  void AwaitEndOfCommand() { _shell.AwaitOutput(_end); }
  void AwaitLine(const std::string& line) { _shell.AwaitOutput(line + "\n"); }
  const std::string& GetOutput() const { return _shell.GetOutput(); }

 private:
  // The programs under their own names. Each leaves its process's number, and ends with the shell. The command bears
  // the silence of a busy machine's daemon for longer than usual.
  static Variables MakeEnvironment(const TemporaryDirectory& tools, const std::string& idFile,
                                   const std::optional<std::string>& server) {
    WriteProgram(tools.Path("tavix-settings"), "'" TAVIX_CLI_PROGRAM "' -t 80");
    WriteProgram(tools.Path("tavix-settings-server"), "'" TAVIX_SERVER_PROGRAM "'");
    return {{"PATH", tools.GetPath() + ":/usr/bin:/bin"},
            {"TERMINAL_ID_FILE", idFile},
            {"TAVIX_SETTINGS_SERVER", server},
            {"TAVIX_SETTINGS_LOCALFILE", std::nullopt},
            {"LC_ALL", "C"}};
  }

  // words: of a shell's command.
  static void WriteProgram(const std::string& path, const std::string& words) {
    if (std::filesystem::exists(path)) return;
    std::ofstream(path) << "#!/bin/sh\necho $$ >\"$TERMINAL_ID_FILE\"\nexec setpriv --pdeathsig KILL " << words
                        << " \"$@\"\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  }

  void Interrupt() const {
    const pid_t id = std::stoi(_tools.Read(_idFile));
    if (kill(id, SIGINT) != 0) throw std::runtime_error("There is nothing to interrupt");
  }

  const TemporaryDirectory& _tools;
  const std::string _idFile;
  CommandProcess _shell;
  std::string _seen;
  std::string _end;  // of the command that was typed last
  int _commands = 0;
};

}  // namespace tavix::test
