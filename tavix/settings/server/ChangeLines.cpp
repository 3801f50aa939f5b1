#include "tavix/settings/server/ChangeLines.h"

#include <iterator>

#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

namespace {

using core::IniFile;

constexpr size_t kMaxNames = 16;
constexpr size_t kMaxValues = 64;
constexpr size_t kMaxValueBytes = 1024;  // as much as a line of the log has

std::string FormatCount(size_t count, const char* unit) {
  return std::to_string(count) + unit + (count == 1 ? "" : "s");
}

// The first names, in ascending order, and how many there are.
class NameList {
 public:
  void Add(const std::string& name) {
    ++_count;
    _first.insert(name);
    if (_first.size() > kMaxNames) _first.erase(std::prev(_first.end()));
  }

  size_t GetCount() const { return _count; }

  std::string ToText() const {
    std::string text;
    for (const std::string& name : _first) text.append(text.empty() ? "" : ", ").append(name);
    const size_t others = _count - _first.size();
    return others == 0 ? text : text + " and " + std::to_string(others) + " more";
  }

 private:
  std::set<std::string> _first;
  size_t _count = 0;
};

void AddValues(const std::string& beginning, const IniFile::GroupMap::value_type& group,
               std::vector<std::string>& lines) {
  for (const auto& [key, value] : group.second) {
    if (lines.size() == kMaxValues) return;
    lines.push_back(beginning + "[" + group.first + "]" + key + "=" + value.substr(0, kMaxValueBytes));
  }
}

}  // namespace

std::vector<std::string> MakeChangeLines(std::string_view command, const std::set<std::string>& removed,
                                         const IniFile& settings, bool withValues) {
  const std::string beginning = std::string(command) + ": ";
  NameList names;
  size_t keys = 0;
  std::vector<std::string> values;
  for (const std::string& name : removed) {
    if (!GroupDiscriminator::IsRestrictedGroup(name) && !settings.HasGroup(name)) names.Add(name);
  }
  for (const auto& group : settings) {
    if (GroupDiscriminator::IsRestrictedGroup(group.first)) continue;
    names.Add(group.first);
    keys += group.second.size();
    if (withValues) AddValues(beginning, group, values);
  }
  if (names.GetCount() == 0) return {};
  if (withValues && keys > values.size()) values.push_back(beginning + std::to_string(keys - values.size()) + " more");
  values.insert(values.begin(), beginning + FormatCount(names.GetCount(), " group") + ", " + FormatCount(keys, " key") +
                                    ": " + names.ToText());
  return values;
}

}  // namespace tavix::settings::server
