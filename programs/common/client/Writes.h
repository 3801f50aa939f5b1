#pragma once

#include <functional>
#include <set>
#include <string>

#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"

// All that the commands write. Every function throws Failure, kExitRefused, for a restricted group before anything is
// written. Writes have no reply. So each function reads back on the same session, but for TryMergeIf and Clean,
// which have one. Those that know what the store has to hold then throw Failure, kExitNotApplied, when something else
// stands there.
namespace tavix::programs {

// Throws Failure, kExitRefused, when one of the groups can't be written.
void RefuseRestricted(const Session& session, const std::set<std::string>& groups);

// Throws Failure, kExitUsage, when a name holds a '*': a list of groups to be replaced takes that for a pattern, and
// other groups would go too.
void RefusePatterns(const std::set<std::string>& groups);

// The names among names and '*' patterns.
std::set<std::string> WithoutPatterns(const std::set<std::string>& groups);

// The names of the groups of a document.
std::set<std::string> NamesOf(const core::IniFile& settings);

// The names that are not among the others.
std::set<std::string> Without(const std::set<std::string>& names, const std::set<std::string>& others);

void Merge(Session& session, const core::IniFile& settings, bool isVolatile);

// Throws Failure, kExitConditionFailed, that names what differs, when the condition does not hold, and kExitNotApplied
// when the server has another reason.
void MergeIf(Session& session, const core::IniFile& condition, const core::IniFile& settings);

// The same, once; false when the condition does not hold.
[[nodiscard]] bool TryMergeIf(Session& session, const core::IniFile& condition, const core::IniFile& settings);

// Throws Failure, kExitNotApplied, when the store can't be amended; feature: what needs that.
void RequireAmend(Session& session, const std::string& feature);

// Sets "settings" in one step if the condition holds and none of them is set. Throws as MergeIf and RequireAmend do.
void MergeIfUnset(Session& session, const core::IniFile& condition, const core::IniFile& settings);

// Throws as MergeIf does.
void RequireHolds(const core::IniFile& current, const core::IniFile& condition);

// The same when one of the settings is set.
void RequireUnset(const core::IniFile& current, const core::IniFile& settings);

// Throws Failure, kExitConditionFailed, that names what differs, when these groups are not as they were.
void RequireUnchanged(Session& session, const std::set<std::string>& groups, const core::IniFile& before);

// What becomes of changes that the store holds.
struct Keeping {
  bool endsWithServer = false;  // the server keeps nothing
  std::string failure;          // why changes are not kept at the moment; empty: they are, as far as is known
};

// Asks behind a change that was read back. A server that is older than the question leaves it open.
Keeping FindKeeping(Session& session);

// Replaces exactly these groups: those that "settings" lacks go.
void Replace(Session& session, const std::set<std::string>& groups, const core::IniFile& settings);

// Replaces groups, and merges what is left of "written", in one step. Refused as RefusePatterns does.
void Write(Session& session, const std::set<std::string>& replaced, const core::IniFile& written);

// What groups are to hold, of what they hold now. Groups that it leaves out go.
using Rewriting = std::function<core::IniFile(const core::IniFile& before)>;

// Replaces groups by what "rewrite" makes of them. What it was given is the condition: when somebody has changed or
// taken away any of it meanwhile, it is asked again, 16 times at most. No condition covers what somebody adds to these
// groups meanwhile: that is lost. An older server knows no such condition, and the later change wins. A group that is
// to stay without settings is written by a second change. Throws Failure, kExitConditionFailed, behind the last
// attempt, and kExitNotApplied at once when the server has another reason. Refused as RefusePatterns does.
void Rewrite(Session& session, const std::set<std::string>& groups, const Rewriting& rewrite);

// Takes all that users set in these groups away in one step, and the names off the record of what was deleted, so that
// the defaults show, and later ones will. A name among them may be a pattern of the record. Throws Failure,
// kExitNotApplied, with the server's reason when nothing was done, and as RequireAmend does.
void Clean(Session& session, const std::set<std::string>& groups);

// Puts groups and '*' patterns back to their defaults. take: is given what they hold then, as by Session::GetEach: the
// store alone knows the defaults.
void Restore(Session& session, const std::set<std::string>& groups, const Session::TakeGroup& take);

// Makes the store hold "after" where it held "before". What was only set is merged; groups that lost something are
// replaced, and refused as RefusePatterns does.
void Apply(Session& session, const core::IniFile& before, const core::IniFile& after);

}  // namespace tavix::programs
