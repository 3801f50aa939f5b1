#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>

#include "tavix/core/IniFile.h"

// Settings as JSON: an object of groups, each an object of keys with strings. JSON's strings are text, settings are
// bytes. So a value that is not UTF-8 is the object {"base64": "..."}, and a name or key that is not, or that begins
// with "base64:", is "base64:" with its base64 behind.
namespace tavix::programs {

nlohmann::json NameToJson(const std::string& name);

// The name that such a text stands for; nothing when what stands behind "base64:" is none.
std::optional<std::string> NameFromJson(const std::string& text);

// The bytes that base64 stands for; nothing when it is none.
std::optional<std::string> DecodeBase64(std::string text);

nlohmann::json ValueToJson(const std::string& value);

// null where there is none.
nlohmann::json ValueToJson(const std::optional<std::string>& value);

nlohmann::json ToJson(const core::IniFile& settings);

// The text of a whole document, with a line feed behind it.
std::string Pretty(const nlohmann::json& document);

// A document that comes in parts: the texts, one behind the other, are what Pretty would make of it whole.
//
// Threads: one.
class PrettyParts {
 public:
  // kind: "{}" of an object, "[]" of an array.
  explicit PrettyParts(std::string kind) : _kind(std::move(kind)) {}

  // part: of that kind.
  std::string Add(const nlohmann::json& part);
  std::string Finish() const;

 private:
  const std::string _kind;
  bool _isFirst = true;
};

// The same on one line, without a line feed.
std::string Compact(const nlohmann::json& document);

bool LooksLikeJson(const std::string& text);

// Numbers and truth values are taken as they are written. A name that stands twice is refused. Throws Failure,
// kExitBadInput, with "source" and the line.
core::IniFile FromJson(const std::string& text, const std::string& source);

}  // namespace tavix::programs
