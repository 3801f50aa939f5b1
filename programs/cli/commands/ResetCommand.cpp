#include <memory>
#include <utility>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Removal.h"
#include "programs/cli/commands/Trial.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedChanges.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Backup.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/UserLayer.h"
#include "programs/common/client/Writes.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

using Names = std::set<std::string>;

struct Options {
  RemovalOptions removal;
  TrialOptions trial;
  bool isClean = false;
};

// The groups that users changed, and the names and patterns of those that they deleted.
struct UserNames {
  Names changed;
  Names deleted;
};

UserNames ReadUserNames(Session& session) {
  UserNames names;
  ReadUserLayerEach(session, {}, [&](const IniFile& part) {
    if (!part.HasGroup(kDeletedGroups)) {
      names.changed.insert(names.changed.end(), part.begin()->first);
      return;
    }
    for (const auto& [key, name] : part[kDeletedGroups]) names.deleted.insert(name);
  });
  return names;
}

Names Select(const Names& names, const Names& groups) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  Names selected;
  matcher.GetMatchingGroups(names, selected);
  return selected;
}

// Of what users changed or deleted, what groups and patterns mean: that alone can differ from the defaults.
Names FindUserGroups(const UserNames& names, const Names& groups) {
  Names found = Select(names.changed, groups);
  found.merge(Select(names.deleted, groups));
  return found;
}

// The record of what was deleted is no group that readers see. Who means it means all that it holds.
Names WithRecord(const UserNames& names, Names found, const Names& groups) {
  if (!names.deleted.empty() && !Select({kDeletedGroups}, groups).empty())
    found.insert(names.deleted.begin(), names.deleted.end());
  return found;
}

// A pattern that stays in the record would go on to hide a group.
void RequireNotHidden(const UserNames& names, const Names& cleaned) {
  for (const std::string& pattern : Without(Without(names.deleted, WithoutPatterns(names.deleted)), cleaned)) {
    const Names hidden = Select(cleaned, {pattern});
    if (!hidden.empty())
      throw Failure(
          kExitNotApplied,
          "not applied: users deleted '" + SpellName(pattern) + "', which hides '" + SpellName(*hidden.begin()) + "'",
          "name " + QuoteForShell(SpellName(pattern)) + " as well");
  }
}

// Besides what users changed: values that are not saved are no part of that, and show only in what readers see.
Names WithSeen(const Session& session, Names found, const IniFile& seen, const Names& groups) {
  for (const std::string& name : Select(NamesOf(seen), groups)) {
    if (!session.IsRestricted(name)) found.insert(name);
  }
  found.merge(WithoutPatterns(groups));
  return found;
}

void CleanUnlessHidden(Session& session, const Names& cleaned) {
  if (cleaned.empty()) return;
  RequireNotHidden(ReadUserNames(session), cleaned);
  Clean(session, cleaned);
}

IniFile RestoreAndRead(Session& session, const Names& groups) {
  IniFile after;
  Restore(session, groups, [&](const IniFile& group) { after.MergeGroup(group.begin()); });
  return after;
}

// Only the server knows the defaults: what it did shows in what was there before and after. changed: what users did.
Done ResetGroups(Context& context, bool isClean, const Names& meant, const Names& changed) {
  Session& session = context.GetSession();
  Names groups = meant;
  if (isClean) groups.insert(changed.begin(), changed.end());
  IniFile before;
  IniFile after;
  session.RunAlone([&] {
    before = session.Get(groups);
    if (isClean) CleanUnlessHidden(session, WithSeen(session, changed, before, meant));
    after = isClean ? session.Get(groups) : RestoreAndRead(session, groups);
  });
  if (before.IsEmpty() && after.IsEmpty()) throw Failure(kExitNo, "no group matches, and no default does");
  Names all = NamesOf(before);
  all.merge(NamesOf(after));
  Done done{"reset", Count(all.size(), "group") + " at " + (all.size() == 1 ? "its" : "their") + " defaults"};
  done.print = [&context, changes = FindChanges(before, after)] {
    PrintChanges(context.GetConsole(), context.GetOptions().output, changes);
  };
  return done;
}

int Reset(Context& context, const Options& options) {
  const Names groups = ReadGroups(context, options.removal);
  Session& session = context.GetSession();
  const UserNames names = ReadUserNames(session);
  Names changed = FindUserGroups(names, groups);
  if (options.isClean) {
    RequireAmend(session, "--clean");
    changed = WithRecord(names, std::move(changed), groups);
  }
  if (options.removal.isDryRun) {
    for (const std::string& group : changed) context.GetConsole().Print(SpellName(group) + "\n");
    return kExitDone;
  }
  RequireTrial(session, options.trial);
  ConfirmPattern(options.removal, "reset", groups, changed);
  return MakeChange(context, options.removal.note, options.trial,
                    [&] { return ResetGroups(context, options.isClean, groups, changed); });
}

}  // namespace

void AddReset(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("reset", "Put groups back to their defaults, and print what that changed",
                                          [options](Context& context) { return Reset(context, *options); });
  AddRemovalOptions(command, options->removal, "Print the groups that users changed or deleted, and change nothing");
  AddTrial(command, options->trial);
  command.AddFlag("--clean", options->isClean, "Keep no copies of the defaults, so that later ones count, too");
}

}  // namespace tavix::programs::cli
