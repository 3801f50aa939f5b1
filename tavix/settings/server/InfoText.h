#pragma once

#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

// The form of all that `info` answers: a title, a line of as many "-", the lines, an empty line. lines: each with its
// line feed.
std::string MakeInfoText(std::string_view title, std::string_view lines);

// Lines NAME=VALUE, spelled as settings text spells a key and its value, in ascending order of names.
std::string MakeFigureLines(core::IniFile::KeyMap figures);

// A text as settings text spells it as a value, cut to so many bytes behind a whole character.
std::string EscapeText(std::string_view text, size_t maxBytes);

// The beginning of a text whose spelling takes so many bytes at most.
std::string_view CutText(std::string_view text, size_t maxBytes);

}  // namespace tavix::settings::server
