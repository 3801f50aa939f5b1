#pragma once

#include <string>

#include "programs/cli/terminal/Console.h"
#include "tavix/core/IniFile.h"

// Settings in each form of output.
namespace tavix::programs::cli {

// Settings text. isSpaced: with an empty line between groups.
void PrintIni(Console& console, const core::IniFile& settings, bool isSpaced);

// One line "[group]key=value" for each setting; "[group]" for a group without any.
void PrintAssignments(Console& console, const core::IniFile& settings);

// Any form but kText.
void PrintAs(Console& console, Output output, const core::IniFile& settings);

// One setting on its line, with colors.
std::string PaintAssignment(const Console& console, const std::string& group, const std::string& key,
                            const std::string& value);

// "1 setting", "2 settings".
std::string Count(size_t count, const std::string& noun);

size_t CountSettings(const core::IniFile& settings);

}  // namespace tavix::programs::cli
