#include <CLI/CLI.hpp>
#include <memory>

#include "programs/cli/Backup.h"
#include "programs/cli/Changes.h"
#include "programs/cli/CommandLine.h"
#include "programs/cli/Commands.h"
#include "programs/cli/Documents.h"
#include "programs/cli/Failure.h"
#include "programs/cli/Writes.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::cli {

using core::IniFile;

namespace {

struct Options {
  std::string file;  // empty: standard input
  std::vector<std::string> words;
  bool replaces = false;
  bool isUserLayer = false;
  bool isDryRun = false;
};

constexpr size_t kWorthShowing = 256 * size_t{1024};

// Brings a document into the store.
class Import {
 public:
  Import(Context& context, const Options& options)
      : _context(context),
        _options(options),
        _session(context.GetSession()),
        _file(SelectGroups(ReadDocument(FindSource(options)), options.words)) {
    _session.AllowNew();
    TakeOutDeletedGroups();
    TakeOutUnchangedRestricted();
  }

  int Run() {
    RefuseRestricted(_session, NamesOf(_file));
    const IniFile before = ReadBefore();
    const IniFile after = FindAfter(before);
    const std::vector<Change> changes = FindChanges(before, after);
    Console& console = _context.GetConsole();
    if (_options.isDryRun) {
      PrintChanges(console, _context.GetOptions().output, changes);
      if (changes.empty()) console.Say("no differences");
      return kExitDone;
    }
    ShowProgress();
    Write(before, after);
    console.ClearProgress();
    console.Say(changes.empty() ? "done: no differences" : "done: " + Count(changes.size(), "difference"));
    return kExitDone;
  }

 private:
  // Nobody types a backup: who forgot the file is not to sit and wait.
  static std::string FindSource(const Options& options) {
    if (!options.file.empty()) return options.file;
    if (Console::CanAsk()) throw Failure(kExitUsage, "expected a FILE, or a backup on standard input");
    return "-";
  }

  // A backup of the user layer tells what was deleted. In a file that is a group like any other.
  void TakeOutDeletedGroups() {
    if (!_context.GetOptions().local.empty() || !_file.HasGroup(kDeletedGroups)) return;
    for (const auto& [key, value] : _file[kDeletedGroups]) _deleted.insert(value);
    _file.RemoveGroup(kDeletedGroups);
  }

  // Nobody has to write what stands there already.
  void TakeOutUnchangedRestricted() {
    std::set<std::string> restricted;
    for (const auto& [group, keys] : _file) {
      if (_session.IsRestricted(group)) restricted.insert(group);
    }
    if (restricted.empty()) return;
    const IniFile current = _session.Get(restricted);
    for (const auto& [group, keys] : current) {
      if (_file[group] == keys) _file.RemoveGroup(group);
    }
  }

  bool ReplacesUserLayer() const { return _options.replaces && _options.isUserLayer; }

  IniFile ReadBefore() const {
    if (!_options.replaces) {
      std::set<std::string> groups = NamesOf(_file);
      groups.insert(_deleted.begin(), _deleted.end());
      return WithoutRestricted(_session.Get(groups));
    }
    size_t leftOut = 0;
    IniFile before = ReadStore(_session, _options.words, _options.isUserLayer, leftOut);
    if (ReplacesUserLayer()) before.RemoveGroup(kDeletedGroups);
    return WithoutRestricted(std::move(before));
  }

  IniFile WithoutRestricted(IniFile settings) const {
    for (const std::string& name : NamesOf(settings)) {
      if (_session.IsRestricted(name)) settings.RemoveGroup(name);
    }
    return settings;
  }

  IniFile FindAfter(const IniFile& before) const {
    if (_options.replaces) return _file;
    IniFile after = before;
    if (!_deleted.empty()) {
      settings::common::GroupNameMatcher matcher;
      matcher.AddNamesAndPatterns(_deleted);
      std::set<std::string> gone;
      matcher.GetMatchingGroups(before, gone);
      for (const std::string& group : gone) after.RemoveGroup(group);
    }
    after.MergeSettings(_file);
    return after;
  }

  void Write(const IniFile& before, const IniFile& after) const {
    // What users changed goes back to its defaults, and the file is laid over them.
    if (ReplacesUserLayer() && !before.IsEmpty()) _session.Restore(NamesOf(before));
    if (!_deleted.empty()) {
      Replace(_session, _deleted, _file);
    } else if (ReplacesUserLayer()) {
      Merge(_session, _file, false);
    } else {
      Apply(_session, before, after);
    }
  }

  void ShowProgress() const {
    _session.SetProgress([&console = _context.GetConsole()](size_t done, size_t all) {
      if (all >= kWorthShowing) console.ShowProgress("import: " + std::to_string(done * 100 / all) + " %");
    });
  }

  Context& _context;
  const Options& _options;
  Session& _session;
  IniFile _file;
  std::set<std::string> _deleted;  // names and patterns
};

}  // namespace

void AddImport(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  CLI::App& command =
      line.Add("import", "Bring a backup back: set what it holds, or with --replace make the store hold nothing else",
               [options](Context& context) {
                 context.RequireOutput({Output::kJson});
                 return Import(context, *options).Run();
               });
  AddText(command, "FILE", options->file, "Settings as ini or JSON; standard input without it");
  AddTexts(command, "GROUP", options->words, "Groups or '*' patterns to bring back; all without any");
  command.add_flag("--replace", options->replaces, "Take away what the file lacks; restricted groups stay");
  command.add_flag("--user", options->isUserLayer, "With --replace: take away only what users changed");
  command.add_flag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
}

}  // namespace tavix::cli
