#include "programs/common/client/Backup.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs {

using core::IniFile;

namespace {

std::set<std::string> OrAll(const std::set<std::string>& groups) {
  return groups.empty() ? std::set<std::string>{"*"} : groups;
}

constexpr char kCoverage[] = "# This backup covers: ";
constexpr char kCoversAll[] = "# This backup covers all groups";
constexpr char kEnd[] = "# End of backup";
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// A byte order mark may stand in front of the first line.
bool IsLineStart(const std::string& text, size_t at) {
  if (at == sizeof kByteOrderMark - 1 && text.rfind(kByteOrderMark, 0) == 0) return true;
  return at == 0 || text[at - 1] == '\n';
}

bool CoversAll(const std::string& text) {
  size_t at = text.find(kCoversAll);
  while (at != std::string::npos && !IsLineStart(text, at)) at = text.find(kCoversAll, at + 1);
  return at != std::string::npos;
}

}  // namespace

IniFile ParseDocument(const std::string& text, const std::string& source) {
  if (LooksLikeJson(text)) return FromJson(text, source);
  IniFile settings;
  try {
    settings.LoadFromMemory(text, source);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitBadInput, exception.what());
  }
  return settings;
}

std::string DescribeCoverage(const std::set<std::string>& groups) {
  if (groups.empty()) return std::string(kCoversAll) + "\n";
  std::string comments;
  for (const std::string& group : groups) comments += Join({kCoverage, SpellValue(group), "\n"});
  return comments;
}

std::string MarkEnd() {
  return std::string(kEnd) + "\n";
}

std::set<std::string> ReadCoverage(const std::string& text) {
  constexpr size_t kSize = sizeof kCoverage - 1;
  std::set<std::string> groups;
  for (size_t at = text.find(kCoverage); at != std::string::npos; at = text.find(kCoverage, at + kSize)) {
    if (!IsLineStart(text, at)) continue;
    const size_t end = std::min(text.find('\n', at), text.size());
    const bool hasReturn = text[end - 1] == '\r';
    groups.insert(Unspell(text.substr(at + kSize, end - at - kSize - (hasReturn ? 1 : 0))));
  }
  return groups;
}

bool IsCutOff(const std::string& text) {
  if (ReadCoverage(text).empty() && !CoversAll(text)) return false;
  constexpr size_t kSize = sizeof kEnd - 1;
  const size_t size = text.find_last_not_of("\r\n") + 1;
  return size < kSize || text.compare(size - kSize, kSize, kEnd) != 0 || !IsLineStart(text, size - kSize);
}

size_t ReadStoreEach(Session& session, const std::set<std::string>& groups, bool isUserLayer,
                     const Session::TakeGroup& take) {
  size_t leftOut = 0;
  const auto takeAllowed = [&](const IniFile& part) {
    if (groups.empty() && session.IsRestricted(part.begin()->first)) {
      ++leftOut;
    } else {
      take(part);
    }
  };
  if (!isUserLayer) {
    session.GetEach(OrAll(groups), takeAllowed);
    return leftOut;
  }
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(OrAll(groups));
  std::vector<IniFile::const_iterator> places;
  session.GetEachOfUser([&](const IniFile& part) {
    if (part.HasGroup(kDeletedGroups)) {
      const IniFile selected = SelectUserGroups(part, groups);
      if (!selected.IsEmpty()) takeAllowed(selected);
      return;
    }
    matcher.GetMatchingGroups(part, places);
    if (!places.empty()) takeAllowed(part);
  });
  return leftOut;
}

IniFile ReadStore(Session& session, const std::set<std::string>& groups, bool isUserLayer, size_t& leftOut) {
  IniFile settings;
  leftOut =
      ReadStoreEach(session, groups, isUserLayer, [&](const IniFile& part) { settings.MergeGroup(part.begin()); });
  return settings;
}

// In place: a document may be large.
IniFile SelectGroups(IniFile settings, const std::set<std::string>& groups) {
  if (groups.empty()) return settings;
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  std::vector<IniFile::const_iterator> meant;
  matcher.GetMatchingGroups(settings, meant);
  auto next = meant.begin();
  for (auto group = settings.begin(); group != settings.end();) {
    const auto at = group++;
    if (next != meant.end() && *next == at) {
      ++next;
    } else {
      settings.RemoveGroup(at);
    }
  }
  return settings;
}

IniFile SelectUserGroups(IniFile layer, const std::set<std::string>& groups) {
  if (groups.empty()) return layer;
  std::set<std::string> deleted;
  if (layer.HasGroup(kDeletedGroups)) {
    for (const auto& [key, name] : layer[kDeletedGroups]) deleted.insert(name);
    layer.RemoveGroup(kDeletedGroups);
  }
  IniFile selected = SelectGroups(std::move(layer), groups);
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  std::set<std::string> meant;
  matcher.GetMatchingGroups(deleted, meant);
  for (const std::string& name : meant) selected.SetValue(kDeletedGroups, name, name);
  return selected;
}

}  // namespace tavix::programs
