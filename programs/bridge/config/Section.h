#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "programs/common/client/Join.h"
#include "tavix/core/IniFile.h"

namespace tavix::bridge {

// A section of a configuration while it is read: each key is taken once, and what nobody took is unknown.
//
// Threads: one.
// Errors:  ConfigurationError.
class Section {
 public:
  // source: of the configuration. A section that is not there is empty.
  Section(const core::IniFile& all, std::string name, std::string source);

  bool IsThere() const { return _isThere; }

  std::string TakeText(const std::string& key, const std::string& byDefault = "");
  std::string TakeRequired(const std::string& key);

  // Texts with commas between them; blanks around them do not count.
  std::vector<std::string> TakeList(const std::string& key);

  // A number from "min" on.
  unsigned long long TakeNumber(const std::string& key, unsigned long long byDefault, unsigned long long min = 1);

  // The value of the word that stands there; of the first one, when none does.
  template <typename Value>
  Value TakeWord(const std::string& key, const std::vector<std::pair<std::string, Value>>& words) {
    if (!HasKey(key)) return words.front().second;
    const std::string text = TakeText(key);
    std::string known;
    for (const auto& [word, value] : words) {
      if (word == text) return value;
      known += (known.empty() ? "" : ", ") + word;
    }
    Fail(key, programs::Join({"'", text, "' is none of ", known}));
  }

  // Behind all that is known.
  void RequireNothingElse() const;

  [[noreturn]] void Fail(const std::string& key, const std::string& reason) const;

 private:
  bool HasKey(const std::string& key) const { return _keys.count(key) > 0; }

  const std::string _name;
  const std::string _source;
  bool _isThere = false;
  core::IniFile::KeyMap _keys;
  std::set<std::string> _taken;
};

}  // namespace tavix::bridge
