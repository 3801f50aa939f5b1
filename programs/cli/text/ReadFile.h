#pragma once

#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::programs::cli {

// The bytes of a file, or of standard input when "path" is "-". Throws Failure, kExitBadInput, that says why it can't
// be read.
std::string ReadFile(const std::string& path);

// A file of settings text or JSON, "-" for standard input. Throws Failure, kExitBadInput, with the place.
core::IniFile ReadDocument(const std::string& path);

}  // namespace tavix::programs::cli
