#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavix::web {

// A value of JSON as it was written: numbers and truth values keep their text, and {"base64": "..."} is a string of any
// bytes. A plain value.
struct JsonValue {
  enum class Kind { kNull, kText, kNumber, kTruth, kObject, kList };

  Kind kind = Kind::kNull;
  std::string text;                                        // of kText, kNumber and kTruth
  std::vector<std::pair<std::string, JsonValue>> members;  // of kObject, by names as bytes; no name twice
  std::vector<JsonValue> items;                            // of kList

  bool IsNull() const { return kind == Kind::kNull; }
  bool IsValue() const { return kind == Kind::kText || kind == Kind::kNumber || kind == Kind::kTruth; }

  // Null when it is no object or has no such member.
  const JsonValue* Find(std::string_view name) const;
};

// Throws Refusal, 400, with the line, for what is no JSON, a name that stands twice, nesting that nothing here has, and
// a text of so many and so short values that they take many times its memory. bytesDepth: the level from which on an
// object can stand for bytes; above, "base64" is a name like any other. The text's own is 1.
JsonValue ParseJsonBody(const std::string& text, size_t bytesDepth = 2);

// The same of an object; an empty text is an empty one. known: the members that it may have; throws Refusal, 400, for
// others.
JsonValue ParseJsonObject(const std::string& text, std::initializer_list<std::string_view> known,
                          size_t bytesDepth = 2);

// A member that is true or false; false when it is missing. Throws Refusal, 400, when it is something else.
bool ReadFlag(const JsonValue& body, std::string_view member);

}  // namespace tavix::web
