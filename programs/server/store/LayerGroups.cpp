#include "programs/server/store/LayerGroups.h"

#include <algorithm>
#include <exception>
#include <fstream>

#include "tavix/core/SettingsText.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::GroupDiscriminator;

namespace {

constexpr size_t kMaxNamed = 5;
constexpr size_t kMaxNameBytes = 80;

bool IsHeaderOf(const std::string& line, const std::string& name) {
  if (line.find('[') == std::string::npos) return false;
  IniFile document;
  try {
    document.LoadFromMemory(line, "");
  } catch (const std::exception&) {
    return false;  // a setting, which has no group here
  }
  return document.HasGroup(name);
}

// The number of the group's first header, from 1; 0 when the file has changed since.
size_t FindLine(const std::string& path, const std::string& name) {
  std::ifstream file(path, std::ios::binary);
  size_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (IsHeaderOf(line, name)) return number;
  }
  return 0;
}

std::string Print(const std::string& name) {
  return "[" + core::PrintableText(name, kMaxNameBytes) + "]";
}

}  // namespace

bool IsUnlistableGroup(std::string_view name) {
  return name == "." || name.find('\n') != std::string_view::npos;
}

std::vector<std::string> TakeUnlistableGroups(IniFile& document, const std::string& path) {
  std::vector<std::string> messages;
  for (auto next = document.begin(); next != document.end();) {
    const auto group = next++;
    if (!IsUnlistableGroup(group->first)) continue;
    messages.push_back(path + ":" + std::to_string(FindLine(path, group->first)) + ": group " + Print(group->first) +
                       " is left out: no list of names can hold its name");
    document.RemoveGroup(group);
  }
  return messages;
}

std::vector<std::string> FindUnrestrictedGroups(const IniFile& document) {
  std::vector<std::string> names;
  for (const auto& group : document) {
    if (!GroupDiscriminator::IsRestrictedGroup(group.first)) names.push_back(group.first);
  }
  return names;
}

std::string SummarizeGroups(const std::vector<std::string>& names) {
  std::string text;
  const size_t named = std::min(names.size(), kMaxNamed);
  for (size_t i = 0; i < named; ++i) text += (i == 0 ? "" : ", ") + Print(names[i]);
  if (named < names.size()) text += " and " + std::to_string(names.size() - named) + " more";
  return text;
}

}  // namespace tavix::daemon
