#include "programs/common/client/Backup.h"

#include <sstream>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Writes.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs {

using core::IniFile;

namespace {

std::set<std::string> OrAll(const std::set<std::string>& groups) {
  return groups.empty() ? std::set<std::string>{"*"} : groups;
}

}  // namespace

IniFile ParseDocument(const std::string& text, const std::string& source) {
  if (LooksLikeJson(text)) return FromJson(text, source);
  std::istringstream in(text);
  IniFile settings;
  try {
    settings.LoadFromStream(in, source);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitBadInput, exception.what());
  }
  return settings;
}

IniFile ReadStore(Session& session, const std::set<std::string>& groups, bool isUserLayer, size_t& leftOut) {
  IniFile settings = isUserLayer ? SelectGroups(session.GetUserSettings(), groups) : session.Get(OrAll(groups));
  leftOut = 0;
  if (!groups.empty()) return settings;
  for (const std::string& name : NamesOf(settings)) {
    if (!session.IsRestricted(name)) continue;
    settings.RemoveGroup(name);
    ++leftOut;
  }
  return settings;
}

IniFile SelectGroups(const IniFile& settings, const std::set<std::string>& groups) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(OrAll(groups));
  std::vector<IniFile::const_iterator> places;
  matcher.GetMatchingGroups(settings, places);
  IniFile selected;
  for (const IniFile::const_iterator& place : places) selected.MergeGroup(place);
  return selected;
}

}  // namespace tavix::programs
