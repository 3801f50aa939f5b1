#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "programs/server/persistence/Durability.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

// What options' values are read with. Each throws osa::Exception with what it expected.

// From 1 to "most", or from "least".
size_t ParseNumber(const std::string& text, size_t most);
unsigned long long ParseLongNumber(const std::string& text, unsigned long long least, unsigned long long most);

// As IniFile reads it; empty is true.
bool ParseFlag(const std::string& text);

// Octal, up to 0777.
mode_t ParseMode(const std::string& text);

// A level's name; returns its number.
int ParseLogLevel(const std::string& text);

// Adds the numbers of a list with commas.
void AppendUsers(const std::string& list, std::vector<uid_t>& users);

// always, none, or a time in ms or s, up to a minute.
Durability ParseDurability(const std::string& text);

// The same in one spelling, a time in ms. Throws nothing.
std::string FormatDurability(const Durability& durability);

void RequireText(const std::string& text);

// The parts between commas, without blanks around them; empty parts don't count.
std::vector<std::string> SplitList(const std::string& list);

}  // namespace tavix::daemon
