#pragma once

#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
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

  std::string TakeText(std::string_view key, std::string_view byDefault = {});
  std::string TakeRequired(std::string_view key);

  // Texts with commas between them; blanks around them do not count.
  std::vector<std::string> TakeList(std::string_view key);

  // A number from "min" on.
  unsigned long long TakeNumber(std::string_view key, unsigned long long byDefault, unsigned long long min = 1);

  // The value of the word that stands there; of the first one, when none does.
  template <typename Value>
  Value TakeWord(std::string_view key, std::initializer_list<std::pair<std::string_view, Value>> words) {
    if (!HasKey(key)) return words.begin()->second;
    const std::string text = TakeText(key);
    std::string known;
    for (const auto& [word, value] : words) {
      if (word == text) return value;
      known += known.empty() ? "" : ", ";
      known += word;
    }
    Fail(key, programs::Join({"'", text, "' is none of ", known}));
  }

  // Behind all that is known.
  void RequireNothingElse() const;

  [[noreturn]] void Fail(std::string_view key, std::string_view reason) const;

 private:
  bool HasKey(std::string_view key) const { return _keys.count(std::string(key)) > 0; }

  const std::string _name;
  const std::string _source;
  bool _isThere = false;
  core::IniFile::KeyMap _keys;
  std::set<std::string> _taken;
};

}  // namespace tavix::bridge
