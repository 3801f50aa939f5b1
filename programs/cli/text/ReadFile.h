#pragma once

#include <string>

namespace tavix::cli {

// The bytes of a file, or of standard input when "path" is "-". Throws Failure, kExitBadInput, that says why it can't
// be read.
std::string ReadFile(const std::string& path);

}  // namespace tavix::cli
