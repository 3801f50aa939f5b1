#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavix::daemon {

constexpr size_t kLongLine = 4096;

// Whether a line of the text may be of so many bytes. Without one, no name in the text is as long: there is no need to
// look at the names. Looks at some bytes of each 4 KiB only.
inline bool HasLongLine(std::string_view text) {
  while (text.size() >= kLongLine) {
    const size_t feed = text.substr(0, kLongLine).rfind('\n');
    if (feed == std::string_view::npos) return true;
    text.remove_prefix(feed + 1);
  }
  return false;
}

// The same of a file's text. True as well when the file can't be read.
bool FileHasLongLine(const std::string& path);

}  // namespace tavix::daemon
