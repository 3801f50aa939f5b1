#include "programs/server/persistence/LongLine.h"

#include <fstream>

namespace tavix::daemon {

// A piece may begin and end in the middle of a line: what is left of one piece counts for the next.
bool FileHasLongLine(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string piece(16 * kLongLine, '\0');
  size_t pending = 0;  // bytes since the last line feed
  while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())) || file.gcount() > 0) {
    const std::string_view text(piece.data(), static_cast<size_t>(file.gcount()));
    const size_t first = text.find('\n');
    const size_t last = text.rfind('\n');
    pending += first == std::string_view::npos ? text.size() : first;
    if (pending >= kLongLine || HasLongLine(text)) return true;
    if (last != std::string_view::npos) pending = text.size() - last - 1;
  }
  return !file.eof();
}

}  // namespace tavix::daemon
