#pragma once

#include <string_view>

namespace tavix::bridge {

// Whether there is a text that both match. Both may hold '*', which stands for any run of bytes.
bool DoPatternsOverlap(std::string_view first, std::string_view second);

}  // namespace tavix::bridge
