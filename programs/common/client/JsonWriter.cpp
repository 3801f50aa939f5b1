#include "programs/common/client/JsonWriter.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

namespace tavix::programs {

using nlohmann::json;

namespace {

// The bytes of the UTF-8 character at "at", RFC 3629; where there is none, those of its longest beginning, 1 at least.
size_t MeasureCharacter(std::string_view text, size_t at, bool& isWhole) {
  const auto first = static_cast<unsigned char>(text[at]);
  const bool isLead = first >= 0xC2 && first <= 0xF4;
  const size_t wanted = !isLead ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  isWhole = isLead || first < 0x80;
  for (size_t i = 1; i < wanted; ++i) {
    const auto next = static_cast<unsigned char>(at + i < text.size() ? text[at + i] : 0);
    const int low = i > 1 ? 0x80 : first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const int high = i > 1 ? 0xBF : first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (next >= low && next <= high) continue;
    isWhole = false;
    return i;
  }
  return wanted;
}

class Writer {
 public:
  explicit Writer(size_t indent) : _indent(indent) {}

  void Write(const json& value) {
    if (const auto* const object = value.get_ptr<const json::object_t*>()) {
      WriteItems(*object, "{}", [this](const json::object_t::value_type& member) {
        WriteText(member.first);
        _text += _indent == 0 ? ":" : ": ";
        Write(member.second);
      });
    } else if (const auto* const list = value.get_ptr<const json::array_t*>()) {
      WriteItems(*list, "[]", [this](const json& item) { Write(item); });
    } else if (const auto* const text = value.get_ptr<const json::string_t*>()) {
      WriteText(*text);
    } else {
      _text += SpellScalar(value);
    }
  }

  std::string TakeText() { return std::move(_text); }

 private:
  template <typename Items, typename WriteItem>
  void WriteItems(const Items& items, const char* brackets, const WriteItem& write) {
    _text += brackets[0];
    ++_depth;
    bool isFirst = true;
    for (const auto& item : items) {
      if (!isFirst) _text += ',';
      isFirst = false;
      BreakLine();
      write(item);
    }
    --_depth;
    if (!isFirst) BreakLine();
    _text += brackets[1];
  }

  void BreakLine() {
    if (_indent > 0) _text.append(1, '\n').append(_depth * _indent, ' ');
  }

  void WriteText(std::string_view text) {
    _text += '"';
    for (size_t at = 0; at < text.size();) {
      bool isWhole = false;
      const size_t length = MeasureCharacter(text, at, isWhole);
      if (!isWhole) {
        _text += "\xEF\xBF\xBD";
      } else if (static_cast<unsigned char>(text[at]) < 0x20 || text[at] == '"' || text[at] == '\\') {
        WriteEscaped(text[at]);
      } else {
        _text.append(text, at, length);
      }
      at += length;
    }
    _text += '"';
  }

  void WriteEscaped(char c) {
    constexpr std::string_view kPlain = "\"\\\b\f\n\r\t";
    const size_t known = kPlain.find(c);
    char escaped[8];
    if (known != std::string_view::npos) {
      std::snprintf(escaped, sizeof escaped, "\\%c", "\"\\bfnrt"[known]);
    } else {
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
    }
    _text += escaped;
  }

  static std::string SpellScalar(const json& value) {
    switch (value.type()) {
      case json::value_t::boolean:
        return *value.get_ptr<const json::boolean_t*>() ? "true" : "false";
      case json::value_t::number_unsigned:
        return std::to_string(*value.get_ptr<const json::number_unsigned_t*>());
      case json::value_t::number_integer:
        return std::to_string(*value.get_ptr<const json::number_integer_t*>());
      case json::value_t::number_float:
        return SpellFloat(*value.get_ptr<const json::number_float_t*>());
      default:
        return "null";
    }
  }

  // With as few digits as tell it from any other number, and so that it does not look like a whole one.
  static std::string SpellFloat(double number) {
    if (!std::isfinite(number)) return "null";
    char digits[32];
    int precision = 15;
    do {
      std::snprintf(digits, sizeof digits, "%.*g", precision, number);
    } while (std::strtod(digits, nullptr) != number && ++precision <= 17);
    std::string text = digits;
    if (text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
  }

  const size_t _indent;
  size_t _depth = 0;
  std::string _text;
};

}  // namespace

std::string WriteJson(const json& document, size_t indent) {
  Writer writer(indent);
  writer.Write(document);
  return writer.TakeText();
}

}  // namespace tavix::programs
