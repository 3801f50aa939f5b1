#include "programs/bridge/core/PatternOverlap.h"

#include <cstddef>
#include <vector>

namespace tavix::bridge {

// Row by row over the first pattern: whether its first i bytes and the first j bytes of the second have a text in
// common.
bool DoPatternsOverlap(std::string_view first, std::string_view second) {
  std::vector<bool> row(second.size() + 1, false);
  row[0] = true;
  for (size_t j = 1; j <= second.size(); ++j) row[j] = row[j - 1] && second[j - 1] == '*';

  for (const char byte : first) {
    std::vector<bool> next(second.size() + 1, false);
    next[0] = byte == '*' && row[0];
    for (size_t j = 1; j <= second.size(); ++j) {
      const char other = second[j - 1];
      if (byte == '*' || other == '*') {
        next[j] = (byte == '*' && row[j]) || (other == '*' && next[j - 1]) || (byte == '*' && next[j - 1]) ||
                  (other == '*' && row[j]);
      } else {
        next[j] = byte == other && row[j - 1];
      }
    }
    row = next;
  }
  return row[second.size()];
}

}  // namespace tavix::bridge
