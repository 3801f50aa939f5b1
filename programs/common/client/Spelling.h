#pragma once

#include <string>
#include <string_view>

// How names, keys and values are spelled in what is printed and in arguments: as settings text (docs/settings-text.md),
// with two additions so that no byte can upset a terminal: what is not UTF-8, and the control characters above ASCII,
// are spelled \xHH as well. Everything spelled so reads back as the same bytes.
namespace tavix::programs {

bool IsUtf8(std::string_view text);

std::string SpellName(std::string_view name);
std::string SpellKey(std::string_view key);
std::string SpellValue(std::string_view value);

// [group]key and [group]key=value on one line.
std::string SpellSetting(const std::string& group, const std::string& key);
std::string SpellAssignment(const std::string& group, const std::string& key, const std::string& value);

// The bytes that a spelling stands for.
std::string Unspell(std::string_view spelling);

// A word for a POSIX shell. A NUL byte, which no shell can hold, is left out.
std::string QuoteForShell(std::string_view text);

// The name of a shell variable for a setting: every byte that a name can't hold becomes '_'.
std::string ShellVariable(const std::string& group, const std::string& key);

}  // namespace tavix::programs
