#pragma once

#include <iosfwd>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::common {

// Says which groups somebody means: literal names, and patterns in which '*' stands for any run of bytes. A string is a
// pattern if and only if it holds a '*'. A plain value.
//
// Cost: names are looked up; patterns are tried on the groups that share their text before the first '*' only, and
//       where many share it, through an index.
class TAVIX_EXPORT GroupNameMatcher {
 public:
  void AddNameOrPattern(const std::string& s);
  void AddNamesAndPatterns(const std::set<std::string>& in);
  void Merge(const GroupNameMatcher& other);

  // Add the candidates, or groups of "ini", that match to "out", which is not cleared. Names never create groups.
  void GetMatchingGroups(const std::set<std::string>& candidates, std::set<std::string>& out) const;
  void GetMatchingGroups(const core::IniFile& ini, std::set<std::string>& out) const;

  // The same without copying a name: replaces "out" by the places of the groups that match, each once, in ascending
  // order. They are valid until the document changes.
  void GetMatchingGroups(const core::IniFile& ini, std::vector<core::IniFile::const_iterator>& out) const;

  // Writes the matching groups of "ini" as settings text. A name that is greater than the group at hand is passed over
  // for good, so that it may miss its own group: with names {b}, groups a and b write nothing. GetMatchingGroups has no
  // such gap.
  void SerializeIni(std::ostream& os, const core::IniFile& ini) const;

  // How many patterns were compared with names by all matchers on this thread so far.
  static unsigned long long CountTriedPatterns();

  bool IsEmpty() const { return _names.empty() && _patterns.empty(); }
  const std::set<std::string>& GetNames() const { return _names; }
  const std::set<std::string>& GetPatterns() const { return _patterns; }

 private:
  std::set<std::string> _names;
  std::set<std::string> _patterns;
};

}  // namespace tavix::settings::common
