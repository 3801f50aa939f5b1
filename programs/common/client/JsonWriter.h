#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tavix::programs {

// The text of a document: on one line, or with a line for each value, behind "indent" blanks a level. Bytes that are no
// UTF-8 become U+FFFD, and a number that JSON does not have null.
std::string WriteJson(const nlohmann::json& document, size_t indent = 0);

}  // namespace tavix::programs
