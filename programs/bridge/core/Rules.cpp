#include "programs/bridge/core/Rules.h"

#include <algorithm>
#include <utility>

#include "programs/common/client/Join.h"
#include "tavix/core/StringUtil.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::bridge {

using core::StringUtil;
using settings::server::GroupDiscriminator;

namespace {

constexpr char kBookkeeping[] = "TavixSettings/";

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& text) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&text](const std::string& pattern) { return StringUtil::MatchesPattern(pattern, text); });
}

}  // namespace

Rules::Rules(std::vector<MapRule> maps, std::vector<std::string> never, std::vector<std::string> mask)
    : _maps(std::move(maps)), _never(std::move(never)), _mask(std::move(mask)) {}

const MapRule* Rules::Find(const std::string& group) const {
  if (group.empty() || IsNever(group)) return nullptr;
  const auto found = std::find_if(_maps.begin(), _maps.end(), [&group](const MapRule& map) {
    return StringUtil::MatchesPattern(map.pattern, group);
  });
  return found == _maps.end() ? nullptr : &*found;
}

bool Rules::IsNever(const std::string& group) const {
  return StringUtil::StartsWith(group, kBookkeeping) || GroupDiscriminator::IsRestrictedGroup(group) ||
         MatchesAny(_never, group);
}

bool Rules::IsMasked(const std::string& group, const std::string& key) const {
  return !_mask.empty() && MatchesAny(_mask, programs::Join({"[", group, "]", key}));
}

std::set<std::string> Rules::GetPatterns() const {
  std::set<std::string> patterns;
  for (const MapRule& map : _maps) patterns.insert(map.pattern);
  return patterns;
}

}  // namespace tavix::bridge
