#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>

namespace tavix::web {

// What groups held when they were last seen, as texts of JSON, in 16 MiB at most: what does not fit is not known.
//
// Threads: one.
class KnownValues {
 public:
  static constexpr size_t kMaxBytes = 16 * size_t{1024} * 1024;

  // From now on nothing is known; all that is not there is missing in the store.
  void Clear();

  // Keeps the values of a group; none: the group is gone. Returns what they were: "null" of a group that was not there,
  // nothing when it is not known.
  std::optional<std::string> Exchange(const std::string& group, const std::optional<std::string>& values);

 private:
  static size_t Cost(const std::string& group, const std::string& values);

  std::unordered_map<std::string, std::string> _values;
  size_t _bytes = 0;
  bool _isComplete = true;  // whether a group that is not here is missing
};

}  // namespace tavix::web
