#include "programs/cli/session/Backup.h"

#include <sstream>

#include "programs/cli/session/Writes.h"
#include "programs/cli/text/Failure.h"
#include "programs/cli/text/Json.h"
#include "programs/cli/text/ReadFile.h"
#include "programs/cli/text/Words.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::cli {

using core::IniFile;

IniFile ReadDocument(const std::string& path) {
  const std::string text = ReadFile(path);
  const std::string source = path == "-" ? "standard input" : path;
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

IniFile ReadStore(Session& session, const std::vector<std::string>& groups, bool isUserLayer, size_t& leftOut) {
  IniFile settings = isUserLayer ? SelectGroups(session.GetUserSettings(), groups) : session.Get(ParseGroups(groups));
  leftOut = 0;
  if (!groups.empty()) return settings;
  for (const std::string& name : NamesOf(settings)) {
    if (!session.IsRestricted(name)) continue;
    settings.RemoveGroup(name);
    ++leftOut;
  }
  return settings;
}

IniFile SelectGroups(const IniFile& settings, const std::vector<std::string>& groups) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(ParseGroups(groups));
  std::vector<IniFile::const_iterator> places;
  matcher.GetMatchingGroups(settings, places);
  IniFile selected;
  for (const IniFile::const_iterator& place : places) selected.MergeGroup(place);
  return selected;
}

}  // namespace tavix::cli
