#include "tavix/settings/server/PhpArraySettingsSerializer.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <istream>
#include <iterator>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::server {

using core::IniFile;
using osa::Exception;

namespace {

constexpr size_t kChunk = 255;  // a false length must not make us reserve what never comes

void Expect(std::istream& is, char expected) {
  char read = 0;
  if (!(is >> read)) throw Exception("phparray missing data (expected '%c')", expected);
  if (read != expected) throw Exception("expected: '%c' but got: '%c'", expected, read);
}

// As the standard extraction reads an unsigned number, down to a sign in front of it, which has it wrap; but whatever
// the stream's locale and flags are.
unsigned int ReadSize(std::istream& is) {
  const auto isDigit = [](int byte) { return byte >= '0' && byte <= '9'; };
  const int sign = (is >> std::ws).peek();
  if (sign == '+' || sign == '-') is.get();
  if (!isDigit(is.peek())) throw Exception("failed to read size specification");
  uint64_t size = 0;
  while (isDigit(is.peek())) {
    size = size * 10 + static_cast<uint64_t>(is.get() - '0');
    if (size > std::numeric_limits<unsigned int>::max()) throw Exception("failed to read size specification");
  }
  const auto number = static_cast<unsigned int>(size);
  return sign == '-' ? 0 - number : number;
}

unsigned int ReadArrayHeader(std::istream& is) {
  Expect(is, 'a');
  Expect(is, ':');
  const unsigned int count = ReadSize(is);
  Expect(is, ':');
  Expect(is, '{');
  return count;
}

std::string ReadString(std::istream& is) {
  Expect(is, 's');
  Expect(is, ':');
  size_t missing = ReadSize(is);
  Expect(is, ':');
  Expect(is, '"');
  std::string text;
  char chunk[kChunk];
  while (missing > 0) {
    const size_t size = std::min(missing, kChunk);
    if (!is.read(chunk, static_cast<std::streamsize>(size)))
      throw Exception("phparray failed to read %zu characters for string", missing);
    text.append(chunk, size);
    missing -= size;
  }
  Expect(is, '"');
  Expect(is, ';');
  return text;
}

void ReadGroup(std::istream& is, IniFile& settings) {
  const std::string name = ReadString(is);
  IniFile::KeyMap& keys = settings[name];
  for (unsigned int left = ReadArrayHeader(is); left > 0; --left) {
    std::string key = ReadString(is);
    keys[std::move(key)] = ReadString(is);
  }
  Expect(is, '}');
}

void WriteSize(std::ostream& os, size_t size) {
  char digits[24];
  os.write(digits, std::to_chars(std::begin(digits), std::end(digits), size).ptr - digits);
}

void WriteArrayHeader(std::ostream& os, size_t count) {
  os << "a:";
  WriteSize(os, count);
  os << ":{";
}

void WriteString(std::ostream& os, const std::string& text) {
  os << "s:";
  WriteSize(os, text.size());
  os << ":\"" << text << "\";";
}

}  // namespace

void PhpArraySettingsSerializer::OnSerialize(const IniFile& settings, const common::GroupNameMatcher& groups,
                                             std::ostream& os) const {
  std::vector<IniFile::const_iterator> matched;
  groups.GetMatchingGroups(settings, matched);
  WriteBegin(os, matched.size());
  for (const auto& group : matched) WriteGroup(os, group);
  WriteEnd(os);
}

void PhpArraySettingsSerializer::WriteBegin(std::ostream& os, size_t groups) const {
  WriteArrayHeader(os, groups);
}

void PhpArraySettingsSerializer::WriteGroup(std::ostream& os, IniFile::const_iterator group) const {
  WriteString(os, group->first);
  WriteArrayHeader(os, group->second.size());
  for (const auto& [key, value] : group->second) {
    WriteString(os, key);
    WriteString(os, value);
  }
  os << '}';
}

void PhpArraySettingsSerializer::WriteEnd(std::ostream& os) const {
  os << "}\n" << std::endl;
}

void PhpArraySettingsSerializer::OnDeserialize(std::istream& is, IniFile& settings) const {
  for (unsigned int left = ReadArrayHeader(is); left > 0; --left) ReadGroup(is, settings);
  Expect(is, '}');
}

void PhpArraySettingsSerializer::SkipPayloadEnd(std::istream& is) const {
  if ((is >> std::ws).peek() == '.') is.get();
}

}  // namespace tavix::settings::server
