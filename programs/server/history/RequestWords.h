#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/IExtraCommands.h"

// What requests of one line have in common.

namespace tavix::daemon {

// The next word, and all that is left, without the blanks around it.
std::string TakeArgument(std::string_view& args);
std::string TakeRest(std::string_view args);

// A number of digits alone that fits. Empty: it is none.
std::optional<uint64_t> ParseDecimal(const std::string& text);

settings::server::IExtraCommands::Answer Refuse(const std::string& reason);
settings::server::IExtraCommands::Answer Show(core::IniFile data);

}  // namespace tavix::daemon
