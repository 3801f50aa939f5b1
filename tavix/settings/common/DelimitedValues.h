#pragma once

#include <istream>
#include <iterator>
#include <string>
#include <string_view>

#include "tavix/core/MemoryStream.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::common {

// Reads a list: one value a line, taken verbatim, ended by a line that holds only ".". Each value is assigned to "out".
// "in" then stands behind the terminator's line; a stream that ends first ends the list.
template <class OutputIterator>
void readDelimitedValues(std::istream* in, OutputIterator out) {
  std::string value;
  while (std::getline(*in, value) && value != ".") *out++ = value;
}

// The same from bytes where they lie.
template <class OutputIterator>
void readDelimitedValues(core::ViewIstream* in, OutputIterator out) {
  std::string value;
  for (std::string_view line; in->TakeLine(line) && line != ".";) *out++ = value.assign(line);
}

// Adds each string assigned to it to a matcher, as name or pattern.
//
// Threads: one.
class GroupNameMatcherInsertIterator {
 public:
  using iterator_category = std::output_iterator_tag;
  using value_type = void;
  using difference_type = void;
  using pointer = void;
  using reference = void;

  // matcher: borrowed, outlives the iterator.
  explicit GroupNameMatcherInsertIterator(GroupNameMatcher& matcher) : _matcher(&matcher) {}

  GroupNameMatcherInsertIterator& operator=(const std::string& value) {
    _matcher->AddNameOrPattern(value);
    return *this;
  }
  GroupNameMatcherInsertIterator& operator*() { return *this; }
  GroupNameMatcherInsertIterator& operator++() { return *this; }
  GroupNameMatcherInsertIterator& operator++(int) { return *this; }

 private:
  GroupNameMatcher* _matcher;
};

}  // namespace tavix::settings::common
