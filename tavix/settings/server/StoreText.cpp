#include "tavix/settings/server/StoreText.h"

#include <algorithm>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/GroupWalk.h"
#include "tavix/settings/server/ISettingsSerializer.h"

namespace tavix::settings::server {

using common::GroupNameMatcher;
using core::IniFile;

namespace {

using Groups = std::vector<IniFile::const_iterator>;

constexpr size_t kBytesOfWork = 256;

// Whether the groups' texts are of at most about that length. Looks at no more keys than the answer needs.
bool FitInto(size_t bytes, const Groups& groups) {
  size_t used = 0;
  for (const auto& group : groups) {
    used += group->first.size();
    for (const auto& [key, value] : group->second) {
      used += key.size() + value.size() + 2;
      if (used > bytes) return false;
    }
  }
  return used <= bytes;
}

// False when that takes more than "work".
bool TryToFind(const IniFile& document, const GroupNameMatcher& matcher, GroupWalk::Work work, Groups& found) {
  if (matcher.GetPatterns().empty()) {
    for (const std::string& name : matcher.GetNames()) {
      const auto group = document.GetGroups().find(name);
      if (group != document.end()) found.push_back(group);
    }
    return true;
  }
  const GroupWalk walk(matcher);
  for (auto group = document.begin();; ++group, --work) {
    group = walk.FindNext(document, group, document.end(), work);
    if (group == document.end()) return true;
    if (work == 0) return false;
    found.push_back(group);
  }
}

}  // namespace

bool TryWriteGroups(std::ostream& os, const IniFile& document, const GroupNameMatcher& matcher,
                    const ISettingsSerializer& serializer, size_t maxWork) {
  if (std::max(matcher.GetNames().size(), matcher.GetPatterns().size()) > maxWork) return false;
  Groups matched;
  if (!TryToFind(document, matcher, maxWork, matched) || !FitInto(maxWork * kBytesOfWork, matched)) return false;
  if (!serializer.CanWriteGroups()) {
    serializer.OnSerialize(document, matcher, os);
    return true;
  }
  serializer.WriteBegin(os, matched.size());
  for (const auto& group : matched) serializer.WriteGroup(os, group);
  serializer.WriteEnd(os);
  return true;
}

}  // namespace tavix::settings::server
