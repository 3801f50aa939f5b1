#include "programs/common/client/Spelling.h"

#include <cctype>
#include <cstdint>

#include "programs/common/client/Join.h"

namespace tavix::programs {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

bool IsContinuation(std::string_view text, size_t at) {
  return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
}

// How long the character at "at" is by its first byte, and what the first byte contributes; 0 when none begins so.
size_t LeadingByte(unsigned char byte, uint32_t& bits) {
  if (byte < 0x80) {
    bits = byte;
    return 1;
  }
  if (byte >= 0xC2 && byte <= 0xDF) {
    bits = byte & 0x1FU;
    return 2;
  }
  if (byte >= 0xE0 && byte <= 0xEF) {
    bits = byte & 0x0FU;
    return 3;
  }
  if (byte >= 0xF0 && byte <= 0xF4) {
    bits = byte & 0x07U;
    return 4;
  }
  return 0;
}

// The length of the UTF-8 character at "at", RFC 3629; 0 when there is none.
size_t DecodeUtf8(std::string_view text, size_t at, uint32_t& character) {
  const size_t length = LeadingByte(static_cast<unsigned char>(text[at]), character);
  for (size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text, at + i)) return 0;
    character = character << 6U | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
  }
  const bool isOverlong = (length == 3 && character < 0x800) || (length == 4 && character < 0x10000);
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  return isOverlong || isSurrogate || character > 0x10FFFF ? 0 : length;
}

void AppendHex(std::string& out, char byte) {
  const auto number = static_cast<unsigned char>(byte);
  out += "\\x";
  out += kHexDigits[number >> 4U];
  out += kHexDigits[number & 0xFU];
}

void AppendAscii(std::string& out, char c) {
  if (c == '\\') {
    out += "\\\\";
  } else if (c == '\n') {
    out += "\\n";
  } else if (c == '\r') {
    out += "\\r";
  } else if (c == '\t') {
    out += "\\t";
  } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
    AppendHex(out, c);
  } else {
    out += c;
  }
}

// What every place escapes. "reserved" are further characters that are spelled by their number.
std::string Spell(std::string_view text, std::string_view reserved) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    uint32_t character = 0;
    const size_t length = DecodeUtf8(text, at, character);
    const bool isPlain = length > 1 && character >= 0xA0;
    if (isPlain) {
      out += text.substr(at, length);
    } else if (length == 1 && reserved.find(text[at]) == std::string_view::npos) {
      AppendAscii(out, text[at]);
    } else {
      for (size_t i = 0; i < (length == 0 ? 1 : length); ++i) AppendHex(out, text[at + i]);
    }
    at += length == 0 ? 1 : length;
  }
  return out;
}

std::string SpellOuterBlanks(std::string spelled) {
  if (!spelled.empty() && spelled.back() == ' ') spelled.replace(spelled.size() - 1, 1, "\\s");
  if (!spelled.empty() && spelled.front() == ' ') spelled.replace(0, 1, "\\s");
  return spelled;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads the escape at the beginning of "rest"; 0 when it is none.
size_t ReadEscape(std::string_view rest, char& byte) {
  constexpr std::string_view kLetters = "\\nrts";
  constexpr std::string_view kBytes = "\\\n\r\t ";
  if (rest.size() < 2) return 0;
  const size_t letter = kLetters.find(rest[1]);
  if (letter != std::string_view::npos) {
    byte = kBytes[letter];
    return 2;
  }
  if (rest[1] != 'x' || rest.size() < 4) return 0;
  const int high = HexDigit(rest[2]);
  const int low = HexDigit(rest[3]);
  if (high < 0 || low < 0) return 0;
  byte = static_cast<char>(high * 16 + low);
  return 4;
}

bool IsWordCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

bool IsUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    uint32_t character = 0;
    const size_t length = DecodeUtf8(text, at, character);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string SpellName(std::string_view name) {
  return Spell(name, "]");
}

std::string SpellKey(std::string_view key) {
  std::string spelled = SpellOuterBlanks(Spell(key, "="));
  if (!spelled.empty() && std::string_view("[#;").find(spelled.front()) != std::string_view::npos) {
    std::string first;
    AppendHex(first, spelled.front());
    spelled.replace(0, 1, first);
  }
  return spelled;
}

std::string SpellValue(std::string_view value) {
  return SpellOuterBlanks(Spell(value, ""));
}

std::string SpellSetting(const std::string& group, const std::string& key) {
  return Join({"[", SpellName(group), "]", SpellKey(key)});
}

std::string SpellAssignment(const std::string& group, const std::string& key, const std::string& value) {
  return Join({SpellSetting(group, key), "=", SpellValue(value)});
}

std::string Unspell(std::string_view spelling) {
  std::string text;
  for (size_t at = 0; at < spelling.size();) {
    char byte = spelling[at];
    const size_t length = byte == '\\' ? ReadEscape(spelling.substr(at), byte) : 0;
    text += byte;
    at += length == 0 ? 1 : length;
  }
  return text;
}

std::string QuoteForShell(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else if (c != '\0') {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string ShellVariable(const std::string& group, const std::string& key) {
  std::string name = Join({group, "_", key});
  for (char& c : name) {
    if (!IsWordCharacter(c)) c = '_';
  }
  if (name.front() >= '0' && name.front() <= '9') name.insert(0, "_");
  return name;
}

}  // namespace tavix::programs
