#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace tavix::bridge {

// What Engine::Follow takes: a prefix that ends with "/" stands for all keys below it, anything else for one key.
inline bool IsTree(const std::string& prefix) {
  return !prefix.empty() && prefix.back() == '/';
}

inline bool IsFollowedBy(const std::string& prefix, const std::string& key) {
  return IsTree(prefix) ? key.size() > prefix.size() && key.compare(0, prefix.size(), prefix) == 0 : key == prefix;
}

inline bool IsFollowedByAny(const std::vector<std::string>& prefixes, const std::string& key) {
  return std::any_of(prefixes.begin(), prefixes.end(),
                     [&](const std::string& prefix) { return IsFollowedBy(prefix, key); });
}

// The prefixes of the second list that the first lacks.
inline std::vector<std::string> FindAdded(const std::vector<std::string>& before,
                                          const std::vector<std::string>& after) {
  std::vector<std::string> added;
  for (const std::string& prefix : after) {
    if (std::find(before.begin(), before.end(), prefix) == before.end()) added.push_back(prefix);
  }
  return added;
}

}  // namespace tavix::bridge
