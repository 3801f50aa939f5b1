#include "programs/cli/session/Missing.h"

#include <vector>

#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs::cli {

using core::IniFile;

std::string DescribeMissingGroups(Session& session, const std::set<std::string>& groups) {
  if (groups.size() != 1) return "no group matches";
  const std::string& group = *groups.begin();
  if (group.find('*') != std::string::npos) return "no group matches '" + SpellName(group) + "'";
  const std::set<std::string> names = NamesOf(session.Get({"*"}));
  return "there is no group '" + SpellName(group) + "'" + DidYouMean(group, {names.begin(), names.end()});
}

std::string DescribeMissingSetting(Session& session, const std::string& group, const std::string& key) {
  const std::string text = SpellSetting(group, key) + " is not set";
  const IniFile all = session.Get({"*"});
  if (!all.HasGroup(group)) {
    const std::set<std::string> names = NamesOf(all);
    return text + DidYouMean(group, {names.begin(), names.end()});
  }
  if (all.HasGroup(key)) return text + "; for two groups, use 'show'";
  std::vector<std::string> keys;
  for (const auto& [name, value] : all[group]) keys.push_back(name);
  return text + DidYouMean(key, keys);
}

}  // namespace tavix::programs::cli
