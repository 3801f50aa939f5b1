#pragma once

#include <set>
#include <string>

#include "programs/cli/Context.h"
#include "tavix/core/IniFile.h"

// Writes have no reply. So each of these reads back on the same session, and returns only if the store holds what was
// written; otherwise it throws Failure: kExitRefused for a restricted group, before anything is written, and
// kExitNotApplied when something else stands there.
namespace tavix::cli {

// Throws Failure, kExitRefused, when one of the groups can't be written.
void RefuseRestricted(const Session& session, const std::set<std::string>& groups);

// Throws Failure, kExitUsage, when a name holds a '*': a list of groups to be replaced takes that for a pattern, and
// other groups would go too.
void RefusePatterns(const std::set<std::string>& groups);

// The names of the groups of a document.
std::set<std::string> NamesOf(const core::IniFile& settings);

void Merge(Session& session, const core::IniFile& settings, bool isVolatile);

// Throws Failure, kExitConditionFailed, that names what differs, when the condition does not hold.
void MergeIf(Session& session, const core::IniFile& condition, const core::IniFile& settings);

// Throws as MergeIf does.
void RequireHolds(const core::IniFile& current, const core::IniFile& condition);

// Throws Failure, kExitConditionFailed, that names what differs, when these groups are not as they were.
void RequireUnchanged(Session& session, const std::set<std::string>& groups, const core::IniFile& before);

// Replaces exactly these groups: those that "settings" lacks go.
void Replace(Session& session, const std::set<std::string>& groups, const core::IniFile& settings);

// Makes the store hold "after" where it held "before". What was only set is merged; groups that lost something are
// replaced, and refused as RefusePatterns does.
void Apply(Session& session, const core::IniFile& before, const core::IniFile& after);

}  // namespace tavix::cli
