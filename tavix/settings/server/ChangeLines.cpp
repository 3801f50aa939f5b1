#include "tavix/settings/server/ChangeLines.h"

#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

namespace {

using core::IniFile;

constexpr size_t kMaxNames = 16;
constexpr size_t kMaxValues = 64;
constexpr size_t kMaxValueBytes = 1024;  // as much as a line of the log has

void AppendCount(std::string& line, size_t count, const char* unit) {
  line += std::to_string(count);
  line += unit;
  if (count != 1) line += 's';
}

// The first of the names, which are added in ascending order, and how many there are.
class NameList {
 public:
  void Add(const std::string& name) {
    if (++_count > kMaxNames) return;
    if (_count > 1) _first += ", ";
    _first += name;
  }

  size_t GetCount() const { return _count; }

  void AppendTo(std::string& line) const {
    line += _first;
    if (_count <= kMaxNames) return;
    line += " and ";
    line += std::to_string(_count - kMaxNames);
    line += " more";
  }

 private:
  std::string _first;
  size_t _count = 0;
};

// Those that no request changes are left out.
void AddUnlessRestricted(const std::string& name, NameList& names) {
  if (!GroupDiscriminator::IsRestrictedGroup(name)) names.Add(name);
}

NameList ListNames(const std::set<std::string>& removed, const IniFile& settings) {
  NameList names;
  auto next = removed.begin();
  for (const auto& group : settings) {
    for (; next != removed.end() && *next <= group.first; ++next) {
      if (*next != group.first) AddUnlessRestricted(*next, names);
    }
    AddUnlessRestricted(group.first, names);
  }
  for (; next != removed.end(); ++next) AddUnlessRestricted(*next, names);
  return names;
}

void AddValues(const std::string& beginning, const IniFile::GroupMap::value_type& group,
               std::vector<std::string>& lines) {
  for (const auto& [key, value] : group.second) {
    if (lines.size() > kMaxValues) return;
    std::string& line = lines.emplace_back(beginning);
    line += '[';
    line += group.first;
    line += ']';
    line += key;
    line += '=';
    line.append(value, 0, kMaxValueBytes);
  }
}

}  // namespace

std::vector<std::string> MakeChangeLines(std::string_view command, const std::set<std::string>& removed,
                                         const IniFile& settings, bool withValues) {
  const NameList names = ListNames(removed, settings);
  if (names.GetCount() == 0) return {};
  std::string beginning(command);
  beginning += ": ";
  std::vector<std::string> lines{beginning};
  size_t keys = 0;
  for (const auto& group : settings) {
    if (GroupDiscriminator::IsRestrictedGroup(group.first)) continue;
    keys += group.second.size();
    if (withValues) AddValues(beginning, group, lines);
  }
  AppendCount(lines.front(), names.GetCount(), " group");
  lines.front() += ", ";
  AppendCount(lines.front(), keys, " key");
  lines.front() += ": ";
  names.AppendTo(lines.front());
  if (withValues && keys > kMaxValues) {
    lines.push_back(beginning);
    lines.back() += std::to_string(keys - kMaxValues);
    lines.back() += " more";
  }
  return lines;
}

}  // namespace tavix::settings::server
