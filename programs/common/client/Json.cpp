#include "programs/common/client/Json.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/JsonParser.h"
#include "programs/common/client/JsonPlaces.h"
#include "programs/common/client/JsonWriter.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs {

using core::IniFile;
using nlohmann::json;

namespace {

constexpr char kBase64[] = "base64";
constexpr char kBase64Prefix[] = "base64:";
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// RFC 4648, section 4.
std::string EncodeBase64(const std::string& bytes) {
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const size_t count = std::min<size_t>(3, bytes.size() - at);
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; ++i) bits = bits << 8U | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0U);
    for (size_t i = 0; i < 4; ++i) text += i <= count ? kAlphabet[bits >> (18 - 6 * i) & 0x3FU] : '=';
  }
  return text;
}

// Builds settings from what the parser finds. No tree is built in between: it would lose how numbers were written and
// which keys stood twice, and one of any depth could not even be shown.
class Reader : public JsonTaker {
 public:
  // source: outlives this.
  explicit Reader(const std::string& source) : _source(source) {}

  IniFile TakeSettings() { return std::move(_settings); }

  bool null() override { FailUnexpected("null"); }
  bool boolean(bool value) override { return TakeText(value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override { return TakeText(std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return TakeText(std::to_string(value)); }
  bool number_float(number_float_t, const std::string& text) override { return TakeText(text); }
  bool start_array(size_t) override { FailUnexpected("an array"); }
  bool end_array() override { return true; }

  bool string(std::string& text) override {
    if (_depth < kInBase64) return TakeText(text);
    const std::optional<std::string> bytes = DecodeBase64(text);
    if (!bytes) Fail(Join({"'", SpellValue(text), "' is no base64"}));
    SetValue(*bytes);
    return true;
  }

  bool start_object(size_t) override {
    if (_depth == kInBase64) FailUnexpected("an object");
    ++_depth;
    return true;
  }

  bool key(std::string& text) override {
    if (_depth == kInDocument) return OpenGroup(ReadName(text));
    if (_depth == kInGroup) {
      _key = ReadName(text);
      if (_settings.HasValue(_group, _key)) Fail(SpellSetting(_group, _key) + " stands twice");
      return true;
    }
    if (text != kBase64 || _hasBase64) FailUnexpected("an object");
    _hasBase64 = true;
    return true;
  }

  bool end_object() override {
    if (_depth == kInBase64 && !std::exchange(_hasBase64, false)) FailUnexpected("an object");
    --_depth;
    return true;
  }

 private:
  void OnBadText(const std::string& reason) override { Fail(reason); }

  // How many objects are open.
  enum Depth { kNowhere, kInDocument, kInGroup, kInBase64 };

  bool OpenGroup(const std::string& name) {
    if (_settings.HasGroup(name)) Fail(Join({"[", SpellName(name), "] stands twice"}));
    _group = name;
    _settings[name];
    return true;
  }

  std::string ReadName(const std::string& text) {
    std::optional<std::string> name = NameFromJson(text);
    if (!name) Fail(Join({"'", SpellValue(text), "' is no base64"}));
    return *std::move(name);
  }

  bool TakeText(const std::string& text) {
    if (_depth != kInGroup) FailUnexpected(SpellValue(text.substr(0, kMaxShown)));
    SetValue(text);
    return true;
  }

  void SetValue(const std::string& value) { _settings.SetValue(_group, _key, value); }

  [[noreturn]] void FailUnexpected(const std::string& found) {
    if (_depth == kNowhere) Fail("expected an object of groups, found " + found);
    if (_depth == kInDocument) Fail(Join({"[", SpellName(_group), "]: expected an object of keys, found ", found}));
    Fail(Join({SpellSetting(_group, _key), ": expected a string or {\"base64\": \"...\"}, found ", found}));
  }

  [[noreturn]] void Fail(const std::string& what) {
    throw Failure(kExitBadInput, Join({_source, ":", std::to_string(GetLine()), ": ", what}));
  }

  static constexpr size_t kMaxShown = 40;

  const std::string& _source;
  IniFile _settings;
  int _depth = kNowhere;
  std::string _group;
  std::string _key;
  bool _hasBase64 = false;
};

// Lists what the parser finds by its place.
class PlaceLister : public JsonTaker {
 public:
  // Both outlive this.
  PlaceLister(const std::string& source, JsonPlaces& places) : _source(source), _places(places) {}

  bool null() override { return Add(kJsonNull, "null"); }
  bool boolean(bool value) override { return Add(value ? kJsonTrue : kJsonFalse, value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override { return Add(kJsonOther, std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Add(kJsonNumber, std::to_string(value)); }
  bool number_float(number_float_t, const std::string& text) override { return Add(kJsonOther, text); }
  bool string(std::string& text) override { return Add(kJsonText, text); }
  bool start_object(size_t) override { return Open(kJsonObject, "an object"); }
  bool start_array(size_t) override { return Open(kJsonList, ""); }

  bool key(std::string& text) override {
    if (text.size() > kMaxName) Fail("a name is too long");
    _levels[_depth].member = text;
    return true;
  }

  bool end_object() override {
    --_depth;
    return true;
  }

  bool end_array() override {
    const Level& level = _levels[_depth--];
    _places[level.place] = kJsonList + std::to_string(level.count);
    return true;
  }

 private:
  void OnBadText(const std::string& reason) override { Fail(reason); }

  // An object or a list that is open.
  struct Level {
    char kind = 0;
    std::string place;
    std::string member;  // of an object: whose value is next
    size_t count = 0;    // of a list
  };

  static constexpr size_t kMaxDepth = 8;
  static constexpr size_t kMaxValues = 1'000'000;
  static constexpr size_t kMaxName = 256;

  std::string FindPlace() {
    Level& level = _levels[_depth];
    if (level.kind == kJsonList) return Join({level.place, "[", std::to_string(level.count++), "]"});
    return level.place.empty() ? level.member : Join({level.place, ".", level.member});
  }

  bool Add(char kind, const std::string& text) {
    if (_places.size() == kMaxValues) Fail("there are too many values");
    _places[FindPlace()] = kind + text;
    return true;
  }

  bool Open(char kind, const char* text) {
    if (_depth == kMaxDepth) Fail("it nests too deeply");
    std::string place = FindPlace();
    _places[place] = kind + std::string(text);
    Level& level = _levels[++_depth];
    level.kind = kind;
    level.place = std::move(place);
    level.count = 0;
    return true;
  }

  [[noreturn]] void Fail(const std::string& what) const { throw Failure(kExitBadInput, Join({_source, ": ", what})); }

  const std::string& _source;
  JsonPlaces& _places;
  size_t _depth = 0;
  Level _levels[kMaxDepth + 1];  // the first one is of none
};

}  // namespace

json NameToJson(const std::string& name) {
  return IsUtf8(name) && name.rfind(kBase64Prefix, 0) != 0 ? name : kBase64Prefix + EncodeBase64(name);
}

std::optional<std::string> NameFromJson(const std::string& text) {
  if (text.rfind(kBase64Prefix, 0) != 0) return text;
  return DecodeBase64(text.substr(sizeof kBase64Prefix - 1));
}

std::optional<std::string> DecodeBase64(std::string text) {
  if (text.size() % 4 != 0) return std::nullopt;
  for (int i = 0; i < 2 && !text.empty() && text.back() == '='; ++i) text.pop_back();
  if (text.size() % 4 == 1) return std::nullopt;
  const std::string alphabet(kAlphabet);
  std::string bytes;
  uint32_t bits = 0;
  unsigned int held = 0;
  for (const char c : text) {
    const size_t value = alphabet.find(c);
    if (value == std::string::npos) return std::nullopt;
    bits = bits << 6U | static_cast<uint32_t>(value);
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>(bits >> held & 0xFFU);
  }
  return bytes;
}

json ValueToJson(const std::string& value) {
  if (IsUtf8(value)) return value;
  return json::object({{kBase64, EncodeBase64(value)}});
}

json ValueToJson(const std::optional<std::string>& value) {
  return value ? ValueToJson(*value) : json(nullptr);
}

json ToJson(const IniFile& settings) {
  json document = json::object();
  for (const auto& [group, keys] : settings) {
    json& object = document[NameToJson(group).get<std::string>()] = json::object();
    for (const auto& [key, value] : keys) object[NameToJson(key).get<std::string>()] = ValueToJson(value);
  }
  return document;
}

std::string WithoutControls(const std::string& text) {
  std::string out;
  for (size_t at = 0; at < text.size(); ++at) {
    const bool isDelete = text[at] == '\x7F';
    const bool isAbove = text[at] == '\xC2' && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0;
    if (!isDelete && !isAbove) {
      out += text[at];
      continue;
    }
    if (isAbove) ++at;
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(text[at]));
    out += escaped;
  }
  return out;
}

std::string Pretty(const json& document) {
  return WithoutControls(WriteJson(document, 2)) + "\n";
}

// The text of a part begins with its bracket and a line feed, and ends with a line feed, its bracket and a line feed.
std::string PrettyParts::Add(const json& part) {
  if (part.empty()) return std::string();
  const std::string text = Pretty(part);
  const std::string begin = _isFirst ? text.substr(0, 2) : ",\n";
  _isFirst = false;
  return begin + text.substr(2, text.size() - 5);
}

std::string PrettyParts::Finish() const {
  return _isFirst ? _kind + "\n" : Join({"\n", _kind.substr(1), "\n"});
}

std::string Compact(const json& document) {
  return WithoutControls(WriteJson(document));
}

bool LooksLikeJson(const std::string& text) {
  const size_t begin = text.rfind("\xEF\xBB\xBF", 0) == 0 ? 3 : 0;  // a byte order mark
  const size_t first = text.find_first_not_of(" \t\r\n", begin);
  return first != std::string::npos && text[first] == '{';
}

IniFile FromJson(const std::string& text, const std::string& source) {
  Reader reader(source);
  ParseJson(text, reader);
  return reader.TakeSettings();
}

JsonPlaces ListJsonPlaces(const std::string& text, const std::string& source) {
  JsonPlaces places;
  PlaceLister lister(source, places);
  ParseJson(text, lister);
  return places;
}

}  // namespace tavix::programs
