#pragma once

#include <cstddef>
#include <string>

namespace tavix::core {

// Assigns the text. One that becomes much shorter gives its memory back.
inline void AssignText(std::string& target, const std::string& text) {
  constexpr size_t kLittle = 64;
  if (target.capacity() > 2 * text.size() + kLittle) {
    target = std::string(text);
  } else {
    target = text;
  }
}

}  // namespace tavix::core
