#include "bench/BareMap.h"

#include <cstring>
#include <tuple>
#include <utility>

namespace tavix::bench {

namespace {

const char* Find(const char* begin, const char* end, char byte) {
  return static_cast<const char*>(std::memchr(begin, byte, static_cast<size_t>(end - begin)));
}

// Each entry is made in its place at the map's end: the text is sorted and names nothing twice.
template <class Map, class... Value>
typename Map::iterator AppendEntry(Map& map, const char* begin, const char* end, Value... value) {
  return map.emplace_hint(map.end(), std::piecewise_construct, std::forward_as_tuple(begin, end),
                          std::forward_as_tuple(value...));
}

void AddLine(BareMap& document, BareMap::iterator& group, const char* begin, const char* end) {
  if (begin == end || *begin == '#' || *begin == ';') return;
  if (*begin == '[' && end[-1] == ']') {
    group = AppendEntry(document, begin + 1, end - 1);
    return;
  }
  const char* equals = Find(begin, end, '=');
  if (equals && group != document.end()) AppendEntry(group->second, begin, equals, equals + 1, end);
}

}  // namespace

BareMap ParseBareMap(const std::string& text) {
  BareMap document;
  auto group = document.end();
  const char* const end = text.data() + text.size();
  for (const char* line = text.data(); line < end;) {
    const char* lineEnd = Find(line, end, '\n');
    if (!lineEnd) lineEnd = end;
    AddLine(document, group, line, lineEnd);
    line = lineEnd + 1;
  }
  return document;
}

void AppendBareGroup(const std::string& name, const BareMap::mapped_type& keys, std::string& out) {
  out.append("[").append(name).append("]\n");
  for (const auto& [key, value] : keys) out.append(key).append("=").append(value).append("\n");
}

void AppendBareMap(const BareMap& document, std::string& out) {
  for (const auto& [name, keys] : document) AppendBareGroup(name, keys, out);
}

}  // namespace tavix::bench
