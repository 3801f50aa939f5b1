#include "programs/bridge/config/Section.h"

#include <cerrno>
#include <cstdlib>

#include "programs/bridge/config/ConfigurationError.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

Section::Section(const core::IniFile& all, std::string name, std::string source)
    : _name(std::move(name)), _source(std::move(source)), _isThere(all.HasGroup(_name)) {
  if (_isThere) _keys = all[_name];
}

std::string Section::TakeText(std::string_view key, std::string_view byDefault) {
  const std::string name(key);
  _taken.insert(name);
  const auto found = _keys.find(name);
  return found == _keys.end() ? std::string(byDefault) : found->second;
}

std::string Section::TakeRequired(std::string_view key) {
  const std::string text = TakeText(key);
  if (text.empty()) Fail(key, "a value is missing");
  return text;
}

std::vector<std::string> Section::TakeList(std::string_view key) {
  std::vector<std::string> list;
  const std::string text = TakeText(key) + ",";
  for (size_t begin = 0, comma = 0; (comma = text.find(',', begin)) != std::string::npos; begin = comma + 1) {
    const std::string part = text.substr(begin, comma - begin);
    const size_t first = part.find_first_not_of(" \t");
    if (first != std::string::npos) list.push_back(part.substr(first, part.find_last_not_of(" \t") - first + 1));
  }
  return list;
}

unsigned long long Section::TakeNumber(std::string_view key, unsigned long long byDefault, unsigned long long min) {
  if (!HasKey(key)) return byDefault;
  constexpr unsigned long long kMax = 1'000'000'000'000;
  const std::string text = TakeText(key);
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(text.c_str(), &end, 10);
  const bool isNumber = !text.empty() && text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0;
  if (!isNumber || number < min || number > kMax) {
    Fail(key, programs::Join({"'", text, "' is no number from ", std::to_string(min), " to ", std::to_string(kMax)}));
  }
  return number;
}

void Section::RequireNothingElse() const {
  for (const auto& [key, value] : _keys) {
    if (_taken.count(key) == 0) Fail(key, "the key is unknown");
  }
}

void Section::Fail(std::string_view key, std::string_view reason) const {
  throw ConfigurationError(
      programs::Join({_source, ": ", programs::SpellSetting(_name, std::string(key)), ": ", reason}));
}

}  // namespace tavix::bridge
