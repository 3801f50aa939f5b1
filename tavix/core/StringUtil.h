#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tavix/osa/Export.h"

namespace tavix::core {

// Small operations on byte strings.
//
// Threads: any; there is no state.
class TAVIX_EXPORT StringUtil {
 public:
  // Whether "text" matches "pattern", in which '*' stands for any run of bytes, an empty one included, and every other
  // byte for itself. The time that it takes grows with their sizes, not with the product of these: both come from
  // clients.
  static bool MatchesPattern(std::string_view pattern, std::string_view text);

  static bool StartsWith(std::string_view text, std::string_view prefix);

  // Compares with ASCII letters of either case taken as equal.
  static bool EqualsIgnoringCase(std::string_view a, std::string_view b);

  // Appends the parts of "text" between the characters of "delimiters" to "out". Empty parts are kept. There are at
  // most "maxParts" parts (0: no limit): the last one keeps the rest, delimiters included.
  static void Split(std::vector<std::string>& out, const std::string& text, const std::string& delimiters,
                    unsigned int maxParts);

  // Reads a decimal number with an optional sign, blanks around it allowed. False, and "value" untouched, when the text
  // is anything else or does not fit.
  [[nodiscard]] static bool TryParse(const std::string& text, int& value);
};

}  // namespace tavix::core
