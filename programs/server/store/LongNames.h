#pragma once

#include <cstddef>
#include <string>

namespace tavix::core {
class IniFile;
}

namespace tavix::daemon {

// Logs a warning when names of the file's groups or keys are longer than clients may send.
void WarnOfLongNames(const std::string& file, const core::IniFile& settings, size_t maxBytes);

}  // namespace tavix::daemon
