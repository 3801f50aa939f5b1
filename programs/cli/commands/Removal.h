#pragma once

#include <set>
#include <string>
#include <vector>

#include "programs/cli/commands/CommandOptions.h"
#include "programs/cli/commands/Context.h"
#include "programs/cli/commands/Note.h"

// What "delete" and "reset" share: they take groups and patterns, and a pattern asks before it does anything.
namespace tavix::programs::cli {

struct RemovalOptions {
  std::vector<std::string> words;
  bool isConfirmed = false;
  bool isDryRun = false;
  bool isEmptyAllowed = false;
  Note note;
};

// dryRun: what --dry-run does. options: outlives the parsing.
void AddRemovalOptions(const CommandOptions& command, RemovalOptions& options, const std::string& dryRun);

// The names and patterns. Throws Failure: kExitUsage for settings and empty names, and for a store that is only read;
// kExitRefused for a restricted name, but not for what a pattern means.
std::set<std::string> ReadGroups(Context& context, const RemovalOptions& options);

// Throws Failure when a pattern among "groups" is not confirmed. verb: "delete". affected: the groups that it would be
// done to.
void ConfirmPattern(const RemovalOptions& options, const std::string& verb, const std::set<std::string>& groups,
                    const std::set<std::string>& affected);

}  // namespace tavix::programs::cli
