#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Note.h"
#include "programs/cli/commands/Trial.h"
#include "programs/cli/session/ReplaceFile.h"
#include "programs/cli/terminal/ChildProcess.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"
#include "tavix/osa/Exception.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Options {
  std::vector<std::string> words;
  bool isDryRun = false;
  bool isEmptyAllowed = false;
  Note note;
  TrialOptions trial;
};

constexpr char kHeading[] =
    "# Change, add or remove settings and groups; then save and leave the editor.\n"
    "# A text without any group changes nothing. Lines like these are ignored.\n\n";

std::string FindEditor() {
  for (const char* variable : {"VISUAL", "EDITOR"}) {
    const char* editor = std::getenv(variable);
    if (editor != nullptr && *editor != '\0') return editor;
  }
  return "vi";
}

// A file for the editor. It is removed only once its text was taken over: until then it may hold somebody's work.
class EditedFile {
 public:
  EditedFile() {
    const char* directory = std::getenv("TMPDIR");
    _path = std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") + "/tavix-XXXXXX.ini";
    const int descriptor = mkostemps(_path.data(), 4, O_CLOEXEC);
    if (descriptor < 0) throw Failure(kExitNotApplied, "failed to make '" + _path + "': " + std::strerror(errno));
    close(descriptor);
  }

  void Write(const std::string& text) const { ReplaceFile(_path, text); }

  IniFile ReadSettings() const {
    IniFile settings;
    try {
      settings.Load(_path.c_str());
    } catch (const osa::Exception& exception) {
      throw Failure(kExitBadInput, exception.what(), GetHint());
    }
    return settings;
  }

  void Edit() const {
    const int status = RunShell(FindEditor() + " \"$1\"", {_path}, {});
    if (status != 0)
      throw Failure(
          kExitNotApplied,
          "the editor '" + FindEditor() + "' ended with status " + std::to_string(status) + "; nothing was changed",
          GetHint());
  }

  std::string GetHint() const { return "the edited text is kept in " + _path; }

  void Remove() const { unlink(_path.c_str()); }

 private:
  std::string _path;
};

// The groups to be edited, and those of the names that do not exist yet, empty.
IniFile ReadGroups(Session& session, const std::set<std::string>& groups) {
  IniFile settings = session.Get(groups);
  for (const std::string& name : NamesOf(settings)) {
    if (session.IsRestricted(name) && groups.count(name) == 0) settings.RemoveGroup(name);
  }
  RefuseRestricted(session, NamesOf(settings));
  return settings;
}

std::string TextOf(const IniFile& settings, const std::set<std::string>& groups) {
  std::string text = kHeading;
  IniFile shown = settings;
  for (const std::string& group : groups) {
    if (group.find('*') == std::string::npos) shown[group];
  }
  for (const auto& [group, keys] : shown) {
    text += "[" + SpellName(group) + "]\n";
    for (const auto& [key, value] : keys) text += SpellKey(key) + "=" + SpellValue(value) + "\n";
    text += "\n";
  }
  return text;
}

IniFile EditUntilParsed(const EditedFile& file) {
  while (true) {
    file.Edit();
    try {
      return file.ReadSettings();
    } catch (const Failure& failure) {
      if (!Console::CanAsk()) throw;
      Console::Warn(failure.what() + std::string("\nhint: ") + failure.GetHint());  // an interrupt may be the answer
      if (!Console::Ask("Edit again?")) throw Failure(failure.GetCode(), "nothing was changed", failure.GetHint());
    }
  }
}

// A group that was shown empty because it does not exist, and was left so, is no change.
void DropNewEmptyGroups(IniFile& after, const IniFile& before) {
  for (const std::string& name : NamesOf(after)) {
    if (after[name].empty() && !before.HasGroup(name)) after.RemoveGroup(name);
  }
}

IniFile SelectGroups(const IniFile& settings, const std::set<std::string>& names) {
  IniFile selected;
  for (const std::string& name : names) selected.MergeSettings(settings, name);
  return selected;
}

// The groups that differ, as they were shown: what has to be so still.
IniFile FindCondition(const IniFile& before, const std::vector<Change>& changes) {
  IniFile condition;
  for (const Change& change : changes) condition.MergeSettings(before, change.group);
  return condition;
}

IniFile FindNewValues(const IniFile& after, const std::vector<Change>& changes) {
  IniFile values;
  for (const Change& change : changes) {
    if (change.after) values.SetValue(change.group, *change.key, *change.after);
  }
  for (const Change& change : changes) {
    if (!change.key && change.hasCome) values.MergeSettings(after, change.group);
  }
  return values;
}

bool LosesAnything(const std::vector<Change>& changes) {
  return std::any_of(changes.begin(), changes.end(),
                     [](const Change& change) { return change.key ? !change.after.has_value() : !change.hasCome; });
}

// The protocol's conditional write can only set, and tests only what is there. So what has come is looked for right
// before it, and what goes is taken away right behind it, on the same connection.
void Write(Session& session, const IniFile& before, const IniFile& after, const std::vector<Change>& changes) {
  std::set<std::string> groups;
  for (const Change& change : changes) groups.insert(change.group);
  RefuseRestricted(session, groups);
  RefusePatterns(groups);
  session.RunAlone([&] {
    RequireUnchanged(session, groups, before);
    MergeIf(session, FindCondition(before, changes), FindNewValues(after, changes));
    if (LosesAnything(changes)) Apply(session, SelectGroups(before, groups), SelectGroups(after, groups));
  });
}

// The editor may have been open for long: a session of its own, that nobody has given up meanwhile.
int WriteEdited(Context& context, const Options& options, const IniFile& before, const IniFile& after,
                const std::vector<Change>& changes) {
  context.Reconnect().AllowNew();
  return MakeChange(context, options.note, options.trial, [&] {
    Write(context.GetSession(), before, after, changes);
    return Done{"set", ""};
  });
}

int Edit(Context& context, const Options& options) {
  const std::set<std::string> groups = ParseGroups(options.words);
  RefuseEmptyName(groups, options.isEmptyAllowed);
  Session& session = context.GetSession();
  if (!options.isDryRun) session.RequireWritable();
  session.AllowNew();
  RefuseRestricted(session, options.words.empty() ? std::set<std::string>() : groups);
  if (!options.isDryRun) RequireTrial(session, options.trial);
  const IniFile before = ReadGroups(session, groups);
  const EditedFile file;
  file.Write(TextOf(before, groups));
  IniFile after = EditUntilParsed(file);
  Console& console = context.GetConsole();
  DropNewEmptyGroups(after, before);
  const std::vector<Change> changes = after.IsEmpty() ? std::vector<Change>() : FindChanges(before, after);
  PrintChanges(console, Output::kText, changes);
  int code = kExitDone;
  if (changes.empty() || options.isDryRun) {
    console.Say(changes.empty() ? "no changes" : "nothing was written");
  } else {
    try {
      code = WriteEdited(context, options, before, after, changes);
    } catch (const Failure& failure) {
      if (failure.GetCode() == kExitNotKept) {
        file.Remove();
        throw;
      }
      const std::string more = options.trial.isGiven ? failure.GetHint() : std::string();
      throw Failure(failure.GetCode(), failure.what(), (more.empty() ? "" : more + "\nhint: ") + file.GetHint());
    }
  }
  file.Remove();
  return code;
}

}  // namespace

void AddEdit(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("edit", "Change groups in $VISUAL or $EDITOR, unless somebody else changes them meanwhile",
               [options](Context& context) { return Edit(context, *options); });
  command.AddTexts("GROUP", options->words, "Groups or '*' patterns; without any, all that are not restricted");
  command.AddFlag("--allow-empty", options->isEmptyAllowed, "Take an empty text as the name of a group");
  command.AddFlag("--dry-run", options->isDryRun, "Print what would change, and change nothing");
  AddNote(command, options->note);
  AddTrial(command, options->trial);
}

}  // namespace tavix::programs::cli
