#include "tavix/settings/CheckedSetting.h"

#include <locale.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "tavix/core/Logger.h"
#include "tavix/core/SettingsText.h"

namespace tavix::settings {

using core::IniFile;

namespace {

constexpr size_t kMaxLogged = 100;  // bytes of a text

std::string_view WithoutBlanks(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool TryParse(std::string_view text, int64_t& number) {
  std::string_view digits = WithoutBlanks(text);
  if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') digits.remove_prefix(1);
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number);
  return error == std::errc() && stop == end;
}

// The calling thread reads and writes numbers as C does while it lives.
class PlainNumbers {
 public:
  PlainNumbers() : _before(uselocale(OfC())) {}
  ~PlainNumbers() { uselocale(_before); }

  PlainNumbers(const PlainNumbers&) = delete;
  PlainNumbers& operator=(const PlainNumbers&) = delete;

 private:
  static locale_t OfC() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t{});
    return locale;
  }

  const locale_t _before;
};

// A text that the C library takes for a number may be hexadecimal, or none.
bool TryParse(std::string_view text, double& number) {
  const std::string digits(WithoutBlanks(text));
  if (digits.empty() || digits.find_first_not_of("+-.0123456789eE") != std::string::npos) return false;
  const PlainNumbers plain;
  char* end = nullptr;
  number = std::strtod(digits.c_str(), &end);
  return end == digits.c_str() + digits.size() && std::isfinite(number);
}

std::string FormatReal(double number) {
  const PlainNumbers plain;
  char text[32];
  std::snprintf(text, sizeof text, "%g", number);
  return text;
}

}  // namespace

void CheckedSetting::ReadSetting(const IniFile& settings) {
  if (!settings.HasValue(_group, _key)) return SetDefault();
  const std::string& text = settings.GetValue(_group, _key);
  if (TryRead(settings, text)) return;
  SetDefault();
  Report(text);
}

void CheckedSetting::Report(const std::string& text) {
  if (_isReported && _reported == text) return;
  _reported = text;
  _isReported = true;
  core::Logger::GetLogger("SettingsWatcher")
      ->Warning("[%s]%s is '%s': expected %s; the default is used", _group.c_str(), _key.c_str(),
                core::PrintableText(text, kMaxLogged).c_str(), DescribeExpected().c_str());
}

bool IntegerSetting::TryRead(const IniFile&, const std::string& text) {
  int64_t number = 0;
  if (!TryParse(text, number) || number < _min || number > _max) return false;
  _variable.assign(_variable.target, number);
  return true;
}

std::string IntegerSetting::DescribeExpected() const {
  return "a whole number from " + std::to_string(_min) + " to " + std::to_string(_max);
}

bool NamedSetting::TryRead(const IniFile&, const std::string& text) {
  for (const auto& [name, number] : _names) {
    if (name != text) continue;
    _variable.assign(_variable.target, number);
    return true;
  }
  return false;
}

std::string NamedSetting::DescribeExpected() const {
  std::string text = "one of";
  for (const auto& name : _names) text += (&name == &_names.front() ? " " : ", ") + name.first;
  return text;
}

bool RealSetting::TryRead(const IniFile&, const std::string& text) {
  double number = 0;
  if (!TryParse(text, number) || number < _min || number > _max) return false;
  *_target = number;
  return true;
}

std::string RealSetting::DescribeExpected() const {
  return "a number from " + FormatReal(_min) + " to " + FormatReal(_max);
}

bool BoolSetting::TryRead(const IniFile& settings, const std::string&) {
  const bool value = settings.GetBoolOrDefault(_group, _key, false);
  if (value != settings.GetBoolOrDefault(_group, _key, true)) return false;
  *_target = value;
  return true;
}

bool TextSetting::TryRead(const IniFile&, const std::string& text) {
  *_target = text;
  return true;
}

}  // namespace tavix::settings
