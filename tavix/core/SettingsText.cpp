#include "tavix/core/SettingsText.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <istream>
#include <ostream>
#include <tuple>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::core {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string_view WithoutBlanks(const char* begin, const char* end) {
  while (begin < end && IsBlank(*begin)) ++begin;
  while (end > begin && IsBlank(end[-1])) --end;
  return {begin, static_cast<size_t>(end - begin)};
}

// The first such byte, or "end".
const char* Find(const char* begin, const char* end, char byte) {
  const void* found = begin < end ? std::memchr(begin, byte, static_cast<size_t>(end - begin)) : nullptr;
  return found ? static_cast<const char*>(found) : end;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The byte that the escape at "at" (a backslash) stands for; moves "at" behind it. False: no escape that we know.
bool ReadEscape(const char*& at, const char* end, char& byte) {
  if (end - at < 2) return false;
  size_t length = 2;
  switch (at[1]) {
    case '\\':
      byte = '\\';
      break;
    case 'n':
      byte = '\n';
      break;
    case 'r':
      byte = '\r';
      break;
    case 't':
      byte = '\t';
      break;
    case 's':
      byte = ' ';
      break;
    case 'x':
      if (end - at < 4 || HexDigit(at[2]) < 0 || HexDigit(at[3]) < 0) return false;
      byte = static_cast<char>(HexDigit(at[2]) * 16 + HexDigit(at[3]));
      length = 4;
      break;
    default:
      return false;
  }
  at += length;
  return true;
}

std::string Unescape(std::string_view escaped) {
  std::string text;
  const char* const end = escaped.data() + escaped.size();
  for (const char* at = escaped.data(); at < end;) {
    char byte = *at;
    if (byte != '\\' || !ReadEscape(at, end, byte)) ++at;
    text.push_back(byte);
  }
  return text;
}

const char* FindUnescapedEquals(const char* begin, const char* end) {
  for (const char* at = begin; at < end; ++at) {
    if (*at == '=') return at;
    if (*at == '\\') ++at;
  }
  return end;
}

// Has the stream's buffer filled when it is empty and takes bytes from it; returns how many, 0 at the end.
size_t TakeWhatIsAtHand(std::istream& in, char* bytes, size_t max) {
  if (in.peek() == std::istream::traits_type::eof()) return 0;
  const auto atHand = std::clamp<std::streamsize>(in.rdbuf()->in_avail(), 1, static_cast<std::streamsize>(max));
  in.read(bytes, atHand);
  return static_cast<size_t>(in.gcount());
}

constexpr uint64_t kOnes = 0x0101010101010101u;
constexpr uint64_t kHighs = 0x8080808080808080u;

uint64_t WordAt(const char* at) {
  uint64_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

// Whether a byte of the text is a control byte, a backslash or "special". May say yes without need, never no: the
// careful pass that follows decides byte by byte. Eight bytes at a time, after Bit Twiddling Hacks, S. E. Anderson,
// "Determine if a word has a byte less than n": in each byte the difference sets the high bit that the byte itself
// lacks. The last word of a text overlaps the one before it.
bool MayNeedEscape(const std::string& text, char special) {
  const char* at = text.data();
  const char* const end = at + text.size();
  if (text.size() < sizeof(uint64_t)) {
    return std::any_of(at, end, [special](char c) { return IsControl(c) || c == '\\' || c == special; });
  }
  const uint64_t specials = kOnes * static_cast<unsigned char>(special);
  uint64_t found = 0;
  const auto test = [&](uint64_t word) {
    const uint64_t isBackslash = (word ^ (kOnes * '\\')) - kOnes;
    const uint64_t isSpecial = (word ^ specials) - kOnes;
    const uint64_t isDelete = word + kOnes;
    const uint64_t isBelowBlank = word - kOnes * ' ';
    found |= (isBackslash | isSpecial | isDelete | isBelowBlank) & ~word;
  };
  for (; at + sizeof(uint64_t) < end; at += sizeof(uint64_t)) test(WordAt(at));
  test(WordAt(end - sizeof(uint64_t)));
  return (found & kHighs) != 0;
}

}  // namespace

// Escapes are rare: the next one is looked for once, not in every line.
void SettingsTextReader::ReadLines(const char* begin, const char* end) {
  const char* backslash = Find(begin, end, '\\');
  while (begin < end) {
    const char* lineEnd = Find(begin, end, '\n');
    if (backslash < begin) backslash = Find(begin, end, '\\');
    ReadLine(begin, lineEnd, backslash < lineEnd);
    begin = lineEnd == end ? end : lineEnd + 1;
  }
}

void SettingsTextReader::ReadStream(std::istream& in) {
  char chunk[2048];
  std::string begun;  // of a line whose end is still to come
  while (const size_t size = TakeWhatIsAtHand(in, chunk, sizeof chunk)) {
    const char* begin = chunk;
    const char* end = chunk + size;
    if (!begun.empty()) {
      const char* lineEnd = Find(begin, end, '\n');
      begun.append(begin, lineEnd);
      if (lineEnd == end) continue;
      ReadLines(begun.data(), begun.data() + begun.size());
      begin = lineEnd + 1;
    }
    const char* const chunkEnd = end;
    while (end > begin && end[-1] != '\n') --end;
    ReadLines(begin, end);
    begun.assign(end, chunkEnd);
  }
  ReadLines(begun.data(), begun.data() + begun.size());
}

SettingsGroups SettingsTextReader::TakeGroups() {
  SettingsGroups groups = std::move(_groups);
  _groups.clear();
  _hasGroup = false;
  _open = nullptr;
  return groups;
}

void SettingsTextReader::ReadLine(const char* begin, const char* end, bool hasEscapes) {
  ++_lineNumber;
  if (_lineNumber == 1 && end - begin >= 3 && std::memcmp(begin, "\xEF\xBB\xBF", 3) == 0) begin += 3;
  if (end > begin && end[-1] == '\r') --end;
  const std::string_view line = WithoutBlanks(begin, end);
  if (line.empty() || line.front() == '#' || line.front() == ';') return;
  begin = line.data();
  end = begin + line.size();
  if (*begin == '[') {
    ReadHeader(begin, end, hasEscapes);
  } else {
    ReadSetting(begin, end, hasEscapes);
  }
}

void SettingsTextReader::ReadHeader(const char* begin, const char* end, bool hasEscapes) {
  if (end[-1] != ']') Fail("\"[group]\" or \"key=value\"", begin, end);
  const std::string_view name(begin + 1, static_cast<size_t>(end - begin) - 2);
  if (hasEscapes) {
    OpenGroup(Unescape(name));
  } else {
    OpenGroup(name);
  }
}

void SettingsTextReader::ReadSetting(const char* begin, const char* end, bool hasEscapes) {
  const char* equals = hasEscapes ? FindUnescapedEquals(begin, end) : Find(begin, end, '=');
  if (equals == end) Fail("\"[group]\" or \"key=value\"", begin, end);
  if (!_hasGroup) Fail("\"[group]\" before the first \"key=value\"", begin, end);
  if (!_open) return;
  const std::string_view key = WithoutBlanks(begin, equals);
  const std::string_view value = WithoutBlanks(equals + 1, end);
  if (hasEscapes) {
    SetValue(Unescape(key), Unescape(value));
  } else {
    SetValue(key, value);
  }
}

// In sorted text an entry's place is the end; elsewhere, or when it exists, the map finds it.
void SettingsTextReader::OpenGroup(std::string_view name) {
  _hasGroup = true;
  _open = nullptr;
  if (_isWanted && !(*_isWanted)(name)) return;
  const auto group =
      _groups.emplace_hint(_groups.end(), std::piecewise_construct, std::forward_as_tuple(name), std::tuple<>());
  _open = &group->second;
}

void SettingsTextReader::SetValue(std::string_view key, std::string_view value) {
  const size_t known = _open->size();
  const auto entry = _open->emplace_hint(_open->end(), key, value);
  if (_open->size() == known) entry->second = value;
}

void SettingsTextReader::Fail(const char* expected, const char* begin, const char* end) const {
  throw osa::Exception("%s:%zu: expected %s, found \"%s\"", _source.c_str(), _lineNumber, expected,
                       PrintableText(std::string(begin, end), 80).c_str());
}

SettingsTextWriter::~SettingsTextWriter() {
  try {
    Flush();
  } catch (...) {  // the stream's state shows it
  }
}

void SettingsTextWriter::WriteGroup(const std::string& name, const SettingsKeys& keys) {
  Append('[');
  WriteText(name, Place::kName);
  Append("]\n", 2);
  for (const auto& [key, value] : keys) {
    WriteText(key, Place::kKey);
    Append('=');
    WriteText(value, Place::kValue);
    Append('\n');
  }
}

void SettingsTextWriter::WriteText(const std::string& text, Place place) {
  if (text.empty()) return;
  const char front = text.front();
  const bool plainEnds = place == Place::kName || (front != ' ' && text.back() != ' ');
  const bool plainStart = place != Place::kKey || (front != '[' && front != '#' && front != ';');
  const char special = place == Place::kName ? ']' : place == Place::kKey ? '=' : '\\';
  if (plainEnds && plainStart && !MayNeedEscape(text, special)) {
    Append(text.data(), text.size());
  } else {
    WriteEscaped(text, place);
  }
}

void SettingsTextWriter::WriteEscaped(const std::string& text, Place place) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool atEnd = i == 0 || i + 1 == text.size();
    if (c == '\\') {
      Append("\\\\", 2);
    } else if (c == '\n') {
      Append("\\n", 2);
    } else if (c == '\r') {
      Append("\\r", 2);
    } else if (c == '\t') {
      Append("\\t", 2);
    } else if (c == ' ' && atEnd && place != Place::kName) {
      Append("\\s", 2);
    } else if (IsControl(c) || (place == Place::kName && c == ']') ||
               (place == Place::kKey && (c == '=' || (i == 0 && (c == '[' || c == '#' || c == ';'))))) {
      const auto byte = static_cast<unsigned char>(c);
      const char escape[] = {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 15]};
      Append(escape, sizeof escape);
    } else {
      Append(c);
    }
  }
}

void SettingsTextWriter::Append(const char* bytes, size_t count) {
  if (count > sizeof _buffer - _used) {
    Flush();
    if (count > sizeof _buffer) {
      _out.write(bytes, static_cast<std::streamsize>(count));
      return;
    }
  }
  std::memcpy(_buffer + _used, bytes, count);
  _used += count;
}

void SettingsTextWriter::Append(char byte) {
  if (_used == sizeof _buffer) Flush();
  _buffer[_used++] = byte;
}

void SettingsTextWriter::Flush() {
  const auto count = static_cast<std::streamsize>(_used);
  _used = 0;  // first, so that what a stream refused is not offered to it again
  if (count > 0) _out.write(_buffer, count);
}

std::string PrintableText(const std::string& text, size_t max) {
  std::string printable;
  size_t i = 0;
  for (; i < text.size() && printable.size() < max; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (IsControl(text[i])) {
      printable += {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 15]};
    } else {
      printable += text[i];
    }
  }
  if (i < text.size()) printable += "...";
  return printable;
}

}  // namespace tavix::core
