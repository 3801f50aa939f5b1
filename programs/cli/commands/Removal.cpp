#include "programs/cli/commands/Removal.h"

#include "programs/cli/terminal/Confirmation.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

void AddRemovalOptions(const CommandOptions& command, RemovalOptions& options, const std::string& dryRun) {
  command.AddTexts("GROUP", options.words, "Groups or '*' patterns").Require();
  command.AddFlag("-y,--yes", options.isConfirmed, "Do not ask, even for a pattern");
  command.AddFlag("--allow-empty", options.isEmptyAllowed, "Take an empty text as the name of a group");
  command.AddFlag("--dry-run", options.isDryRun, dryRun);
  AddNote(command, options.note);
}

std::set<std::string> ReadGroups(Context& context, const RemovalOptions& options) {
  const std::set<std::string> groups = ParseGroups(options.words);
  RefuseEmptyName(groups, options.isEmptyAllowed);
  if (!options.isDryRun) context.GetSession().RequireWritable();
  RefuseRestricted(context.GetSession(), WithoutPatterns(groups));
  return groups;
}

void ConfirmPattern(const RemovalOptions& options, const std::string& verb, const std::set<std::string>& groups,
                    const std::set<std::string>& affected) {
  if (options.isConfirmed || WithoutPatterns(groups).size() == groups.size()) return;
  Confirm("a pattern", verb + " " + Count(affected.size(), "group"), affected);
}

}  // namespace tavix::programs::cli
