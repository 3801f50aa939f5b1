#include "programs/server/options/OptionValues.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

// Nothing but a number of that base that the type holds.
template <class Number>
bool TryParse(const std::string& text, int base, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && stop == end;
}

}  // namespace

size_t ParseNumber(const std::string& text, size_t most) {
  return static_cast<size_t>(ParseLongNumber(text, 1, most));
}

unsigned long long ParseLongNumber(const std::string& text, unsigned long long least, unsigned long long most) {
  unsigned long long number = 0;
  if (!TryParse(text, 10, number) || number < least || number > most)
    throw osa::Exception("expected a number from %llu to %llu", least, most);
  return number;
}

bool ParseFlag(const std::string& text) {
  if (text.empty()) return true;
  core::IniFile document;
  document.SetValue("", "", text);
  const bool flag = document.GetBoolOrDefault("", "", false);
  if (flag != document.GetBoolOrDefault("", "", true)) throw osa::Exception("expected true or false");
  return flag;
}

mode_t ParseMode(const std::string& text) {
  unsigned int mode = 0;
  if (!TryParse(text, 8, mode) || mode > 0777) throw osa::Exception("expected an octal number from 0 to 0777");
  return mode;
}

int ParseLogLevel(const std::string& text) {
  if (text == "error") return core::kLogError;
  if (text == "warning") return core::kLogWarning;
  if (text == "notice") return core::kLogNotice;
  if (text == "information") return core::kLogInformation;
  if (text == "trace") return core::kLogTrace;
  throw osa::Exception("expected error, warning, notice, information or trace");
}

void AppendUsers(const std::string& list, std::vector<uid_t>& users) {
  const std::vector<std::string> parts = SplitList(list);
  for (const std::string& part : parts) {
    uid_t user = 0;
    if (!TryParse(part, 10, user) || user == std::numeric_limits<uid_t>::max())
      throw osa::Exception("expected the numbers of users, with commas between them");
    users.push_back(user);
  }
  if (parts.empty()) throw osa::Exception("expected the numbers of users, with commas between them");
}

Durability ParseDurability(const std::string& text) {
  if (text == "always") return {Durability::Kind::kAlways, {}};
  if (text == "none") return {Durability::Kind::kNone, {}};
  size_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [unit, error] = std::from_chars(text.data(), end, number);
  const std::string_view given(unit, static_cast<size_t>(end - unit));
  const size_t milliseconds = given == "ms" ? number : 1000 * std::min<size_t>(number, 61);
  const bool isTime = error == std::errc() && (given == "ms" || given == "s") && number > 0 && milliseconds <= 60000;
  if (!isTime) throw osa::Exception("expected always, none, or a time from 1ms to 60s");
  return {Durability::Kind::kInterval, std::chrono::milliseconds(milliseconds)};
}

std::string FormatDurability(const Durability& durability) {
  switch (durability.kind) {
    case Durability::Kind::kAlways:
      return "always";
    case Durability::Kind::kInterval:
      return std::to_string(durability.interval.count()) + "ms";
    case Durability::Kind::kNone:
      break;
  }
  return "none";
}

void RequireText(const std::string& text) {
  if (text.empty()) throw osa::Exception("expected a path");
}

std::vector<std::string> SplitList(const std::string& list) {
  std::vector<std::string> parts;
  for (size_t at = 0; at <= list.size();) {
    const size_t comma = std::min(list.find(',', at), list.size());
    const size_t first = list.find_first_not_of(" \t", at);
    if (first < comma) {
      const size_t last = list.find_last_not_of(" \t", comma - 1);
      parts.push_back(list.substr(first, last - first + 1));
    }
    at = comma + 1;
  }
  return parts;
}

}  // namespace tavix::daemon
