#include "programs/cli/Json.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "programs/cli/Failure.h"
#include "programs/cli/Spelling.h"

namespace tavix::cli {

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

bool DecodeBase64(std::string text, std::string& bytes) {
  if (text.size() % 4 != 0) return false;
  for (int i = 0; i < 2 && !text.empty() && text.back() == '='; ++i) text.pop_back();
  if (text.size() % 4 == 1) return false;
  const std::string alphabet(kAlphabet);
  uint32_t bits = 0;
  unsigned int held = 0;
  for (const char c : text) {
    const size_t value = alphabet.find(c);
    if (value == std::string::npos) return false;
    bits = bits << 6U | static_cast<uint32_t>(value);
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>(bits >> held & 0xFFU);
  }
  return true;
}

class Reader {
 public:
  explicit Reader(const std::string& source) : _source(source) {}

  IniFile Read(const json& document) const {
    if (!document.is_object()) Fail("expected an object of groups, found " + document.dump());
    IniFile settings;
    for (const auto& [name, keys] : document.items()) {
      const std::string group = ReadName(name);
      if (!keys.is_object()) Fail("[" + SpellName(group) + "]: expected an object of keys, found " + keys.dump());
      settings[group];
      for (const auto& [key, value] : keys.items()) {
        const std::string keyName = ReadName(key);
        settings.SetValue(group, keyName, ReadValue(value, group, keyName));
      }
    }
    return settings;
  }

 private:
  std::string ReadName(const std::string& text) const {
    if (text.rfind(kBase64Prefix, 0) != 0) return text;
    std::string name;
    if (!DecodeBase64(text.substr(sizeof kBase64Prefix - 1), name)) Fail("'" + text + "' is no base64");
    return name;
  }

  std::string ReadValue(const json& value, const std::string& group, const std::string& key) const {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number() || value.is_boolean()) return value.dump();
    const bool isBytes = value.is_object() && value.size() == 1 && value.contains(kBase64);
    std::string bytes;
    if (isBytes && value[kBase64].is_string() && DecodeBase64(value[kBase64].get<std::string>(), bytes)) return bytes;
    Fail(SpellSetting(group, key) + ": expected a string or {\"base64\": \"...\"}, found " + value.dump());
  }

  [[noreturn]] void Fail(const std::string& what) const { throw Failure(kExitBadInput, _source + ": " + what); }

  const std::string& _source;
};

}  // namespace

json NameToJson(const std::string& name) {
  return IsUtf8(name) && name.rfind(kBase64Prefix, 0) != 0 ? name : kBase64Prefix + EncodeBase64(name);
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

std::string Pretty(const json& document) {
  return document.dump(2) + "\n";
}

bool LooksLikeJson(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string::npos && text[first] == '{';
}

IniFile FromJson(const std::string& text, const std::string& source) {
  try {
    return Reader(source).Read(json::parse(text));
  } catch (const json::parse_error& error) {
    const size_t at = std::min(error.byte, text.size());
    const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
    std::string reason = error.what();
    reason.erase(0, reason.find("] ") + 2);
    throw Failure(kExitBadInput, source + ":" + std::to_string(line) + ": " + reason);
  }
}

}  // namespace tavix::cli
