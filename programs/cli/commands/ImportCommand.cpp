#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/session/Backup.h"
#include "programs/cli/session/UserLayer.h"
#include "programs/cli/session/Writes.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Changes.h"
#include "programs/cli/text/Failure.h"
#include "tavix/settings/client/ProtocolClient.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::cli {

using core::IniFile;

namespace {

struct Options {
  std::string file;  // empty: standard input
  std::vector<std::string> words;
  bool replaces = false;
  bool isUserLayer = false;
  bool isConfirmed = false;
  bool isDryRun = false;
};

constexpr size_t kWorthShowing = 256 * size_t{1024};

// Brings a document into the store.
class Import {
 public:
  Import(Context& context, const Options& options)
      : _context(context), _options(options), _session(context.GetSession()), _file(Read()) {
    _session.AllowNew();
    _isEmpty = _file.IsEmpty();
    TakeOutUnchangedRestricted();
  }

  int Run() {
    RefuseRestricted(_session, NamesOf(_file.settings));
    if (_options.isDryRun) return ShowWhatWouldChange();
    std::vector<Change> changes;
    size_t copies = 0;
    ShowProgress();
    _session.RunAlone([&] {
      const IniFile before = ReadBefore();
      const IniFile after = FindAfter(before);
      RequireConfirmed(before);
      Write(before, after);
      changes = FindChanges(before, ReplacesUserLayer() ? ReadBefore() : after);
      if (ReplacesUserLayer()) copies = CountCopies();
    });
    Console& console = _context.GetConsole();
    console.ClearProgress();
    console.Say(changes.empty() ? "done: no differences" : "done: " + Count(changes.size(), "difference"));
    if (copies > 0)
      console.Say("kept as user settings, which the backup lacks: " + Count(copies, "setting") + ", at the defaults");
    return kExitDone;
  }

 private:
  bool IsLocal() const { return !_context.GetOptions().local.empty(); }

  // Nobody types a backup: who forgot the file is not to sit and wait.
  std::string FindSource() const {
    if (!_options.file.empty()) return _options.file;
    if (Console::CanAsk()) throw Failure(kExitUsage, "expected a FILE, or a backup on standard input");
    return "-";
  }

  // A backup of the user layer tells what was deleted. For a file that is a group like any other.
  UserLayer Read() const {
    const std::string source = FindSource();
    const IniFile document = ReadDocument(source);
    if (IsLocal()) return {SelectGroups(document, _options.words), {}};
    if (_options.replaces && !_options.isUserLayer && document.HasGroup(kDeletedGroups))
      throw Failure(kExitUsage, "'" + source + "' tells what users deleted: it is a backup of the user layer",
                    "give --user with --replace");
    UserLayer file = UserLayer::From(document, _options.words);
    RequireSendable(file.settings, source);
    UserLayer allowed = file;
    allowed.DropRestricted(_session);
    file.deleted = allowed.deleted;
    return file;
  }

  static void RequireSendable(const IniFile& settings, const std::string& source) {
    try {
      settings::client::ProtocolClient::RequireSendable(settings);
    } catch (const settings::client::ProtocolException& exception) {
      throw Failure(kExitBadInput, (source == "-" ? "standard input" : source) + ": " + exception.what());
    }
  }

  // Nobody has to write what stands there already.
  void TakeOutUnchangedRestricted() {
    std::set<std::string> restricted;
    for (const auto& [group, keys] : _file.settings) {
      if (_session.IsRestricted(group)) restricted.insert(group);
    }
    if (restricted.empty()) return;
    const IniFile current = _session.Get(restricted);
    for (const auto& [group, keys] : current) {
      if (_file.settings[group] == keys) _file.settings.RemoveGroup(group);
    }
  }

  bool ReplacesUserLayer() const { return _options.replaces && _options.isUserLayer && !IsLocal(); }

  UserLayer ReadUserLayer() const {
    UserLayer layer = UserLayer::From(_session.GetUserSettings(), _options.words);
    layer.DropRestricted(_session);
    return layer;
  }

  // What the store holds where the file may change it.
  IniFile ReadBefore() const {
    if (ReplacesUserLayer()) return ReadUserLayer().ToDocument();
    if (!_options.replaces) {
      std::set<std::string> groups = NamesOf(_file.settings);
      groups.insert(_file.deleted.begin(), _file.deleted.end());
      return WithoutRestricted(_session.Get(groups));
    }
    size_t leftOut = 0;
    return WithoutRestricted(ReadStore(_session, _options.words, false, leftOut));
  }

  IniFile WithoutRestricted(IniFile settings) const {
    for (const std::string& name : NamesOf(settings)) {
      if (_session.IsRestricted(name)) settings.RemoveGroup(name);
    }
    return settings;
  }

  IniFile FindAfter(const IniFile& before) const {
    if (_options.replaces) return ReplacesUserLayer() ? _file.ToDocument() : _file.settings;
    IniFile after = before;
    if (!_file.deleted.empty()) {
      settings::common::GroupNameMatcher matcher;
      matcher.AddNamesAndPatterns(_file.deleted);
      std::set<std::string> gone;
      matcher.GetMatchingGroups(before, gone);
      for (const std::string& group : gone) after.RemoveGroup(group);
    }
    after.MergeSettings(_file.settings);
    return after;
  }

  int ShowWhatWouldChange() const {
    const IniFile before = ReadBefore();
    const std::vector<Change> changes = FindChanges(before, FindAfter(before));
    PrintChanges(_context.GetConsole(), _context.GetOptions().output, changes);
    if (changes.empty()) _context.GetConsole().Say("no differences");
    return kExitDone;
  }

  // Such a text is what a command leaves that failed.
  void RequireConfirmed(const IniFile& before) const {
    if (!_options.replaces || _options.isConfirmed || !_isEmpty || before.IsEmpty()) return;
    throw Failure(kExitUsage,
                  std::string("a text without any ") + (_options.words.empty() ? "group" : "of these groups") +
                      " would take " + Count(before.GetGroups().size(), "group") + " away: give --yes to do it",
                  "--dry-run shows them");
  }

  void Write(const IniFile& before, const IniFile& after) const {
    if (ReplacesUserLayer()) {
      ReplaceUserLayer(_session, ReadUserLayer(), _file, _options.words.empty());
    } else if (!_file.deleted.empty()) {
      Replace(_session, _file.deleted, _file.settings);
    } else {
      Apply(_session, before, after);
    }
  }

  // A restore makes user settings of the defaults.
  size_t CountCopies() const {
    size_t count = 0;
    const UserLayer now = ReadUserLayer();
    for (const auto& [group, keys] : now.settings) {
      for (const auto& [key, value] : keys) count += _file.settings.HasValue(group, key) ? 0 : 1;
    }
    return count;
  }

  void ShowProgress() const {
    _session.SetProgress([&console = _context.GetConsole()](size_t done, size_t all) {
      if (all >= kWorthShowing) console.ShowProgress("import: " + std::to_string(done * 100 / all) + " %");
    });
  }

  Context& _context;
  const Options& _options;
  Session& _session;
  UserLayer _file;
  bool _isEmpty = false;  // the text that was read
};

}  // namespace

void AddImport(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("import", "Bring a backup back: set what it holds, or with --replace make the store hold nothing else",
               [options](Context& context) {
                 context.RequireOutput({Output::kJson});
                 return Import(context, *options).Run();
               });
  command.AddText("FILE", options->file, "Settings as ini or JSON; standard input without it");
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns to bring back; all without any");
  const DeclaredOption replace =
      command.AddFlag("--replace", options->replaces, "Take away what the file lacks; restricted groups stay");
  command.AddFlag("--user", options->isUserLayer, "With --replace: take away only what users changed").Need(replace);
  command.AddFlag("-y,--yes", options->isConfirmed, "Do it even with a text that holds no group");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
}

}  // namespace tavix::cli
