#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Follower.h"
#include "programs/cli/terminal/ChildProcess.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  size_t count = 0;    // 0: no end
  double seconds = 0;  // 0: no end
  bool isInitial = false;
  std::string command;
};

// Which changes somebody asked for: groups, patterns, or single settings.
class Watch {
 public:
  Watch(Context& context, const Options& options)
      : _context(context), _options(options), _targets(TargetsOf(options)), _follower(context, GroupsOf(_targets)) {}

  int Run() {
    SayWhatIsWatched();
    IniFile known = Select(_follower.GetSettings());
    if (_options.isInitial) PrintInitial(known);
    const Follower::End end = FindEnd();
    // What has come already would be handed out even behind the end.
    while (!Follower::HasCome(end) && _follower.AwaitChange(end)) {
      IniFile now = Select(_follower.GetSettings());
      for (const Change& change : FindChanges(known, now)) {
        if (!Announce(change)) return kExitInterrupted;
        if (_options.count != 0 && ++_announced == _options.count) return kExitDone;
        if (Follower::HasCome(end)) return kExitDone;
      }
      known = std::move(now);
    }
    return kExitDone;
  }

 private:
  static std::vector<Target> TargetsOf(const Options& options) {
    return options.words.empty() ? std::vector<Target>{{"*", std::nullopt}} : ParseTargets(options.words);
  }

  static std::set<std::string> GroupsOf(const std::vector<Target>& targets) {
    std::set<std::string> groups;
    for (const Target& target : targets) groups.insert(target.group);
    return groups;
  }

  Follower::End FindEnd() const {
    if (_options.seconds <= 0) return std::nullopt;
    return Follower::Clock::now() + std::chrono::milliseconds(static_cast<long long>(_options.seconds * 1000));
  }

  IniFile Select(const IniFile& all) const {
    IniFile selected;
    settings::common::GroupNameMatcher whole;
    for (const Target& target : _targets) {
      if (!target.key) {
        whole.AddNameOrPattern(target.group);
      } else if (all.HasValue(target.group, *target.key)) {
        selected.SetValue(target.group, *target.key, all.GetValue(target.group, *target.key));
      }
    }
    std::set<std::string> groups;
    whole.GetMatchingGroups(all, groups);
    for (const std::string& group : groups) selected.MergeSettings(all, group);
    return selected;
  }

  // For somebody who looks on: two words may name one setting where two groups were meant.
  void SayWhatIsWatched() const {
    if (!_context.GetConsole().IsOutputTerminal()) return;
    std::string names;
    for (const Target& target : _targets) names += " " + target.ToText();
    _context.GetConsole().Say("watching" + names + "; Ctrl-C ends");
  }

  void PrintInitial(const IniFile& settings) const {
    Console& console = _context.GetConsole();
    if (_context.PrintsJson()) {
      for (const Change& change : FindChanges(IniFile(), settings))
        PrintEvent(console, Output::kJson, change, Occasion::kStart);
    } else {
      PrintAssignments(console, settings);
    }
    console.Flush();
  }

  // False when the command was interrupted: then so are we, who leave interrupts to it.
  bool Announce(const Change& change) const {
    Console& console = _context.GetConsole();
    PrintEvent(console, _context.GetOptions().output, change);
    console.Flush();
    if (_options.command.empty()) return true;
    const int status = RunShell(_options.command, {},
                                {{"TAVIX_GROUP", change.group},
                                 {"TAVIX_KEY", change.key.value_or("")},
                                 {"TAVIX_OLD", change.before.value_or("")},
                                 {"TAVIX_NEW", change.after.value_or("")}});
    if (status == kExitInterrupted) return false;
    if (status != 0) Console::Warn("the command of --exec ended with status " + std::to_string(status));
    return true;
  }

  Context& _context;
  const Options& _options;
  const std::vector<Target> _targets;
  Follower _follower;
  size_t _announced = 0;
};

}  // namespace

void AddWatch(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("watch", "Print changes as they come, until Ctrl-C", [options](Context& context) {
        context.RequireOutput({Output::kJson});
        return Watch(context, *options).Run();
      });
  command.AddTexts("SETTING", options->words, "Groups, '*' patterns or '[group]key'; everything without any");
  command.AddCount("--count", options->count, "End after so many changes");
  command.AddSeconds("--for", options->seconds, 0.001, "End after so many seconds");
  command.AddFlag("--initial", options->isInitial, "Print what is set now first");
  command.AddText("--exec", options->command,
                  "Run this by the shell for each change, with TAVIX_GROUP, TAVIX_KEY, TAVIX_OLD and TAVIX_NEW");
}

}  // namespace tavix::programs::cli
