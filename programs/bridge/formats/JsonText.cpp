#include "programs/bridge/formats/JsonText.h"

#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "programs/bridge/formats/BadDocument.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using nlohmann::json;

namespace {

constexpr int kMaxDepth = 8;

// Looks at what the parser finds, before it is kept.
class Strictness {
 public:
  bool operator()(int depth, json::parse_event_t event, json& parsed) {
    if (depth > kMaxDepth)
      throw BadDocument("the JSON text nests deeper than " + std::to_string(kMaxDepth) + " levels");
    if (event == json::parse_event_t::object_start) {
      _names.emplace_back();
    } else if (event == json::parse_event_t::object_end) {
      _names.pop_back();
    } else if (event == json::parse_event_t::key && !_names.back().insert(parsed.get<std::string>()).second) {
      throw BadDocument("the name '" + programs::SpellValue(parsed.get<std::string>()) + "' stands twice in an object");
    }
    return true;
  }

 private:
  std::vector<std::set<std::string>> _names;  // of the objects that are open
};

const json& GetMember(const json& document, const char* name) {
  const auto member = document.find(name);
  if (member == document.end()) throw BadDocument(std::string("\"") + name + "\" is missing");
  return *member;
}

[[noreturn]] void FailType(const char* name, const char* expected, const json& found) {
  throw BadDocument(std::string("\"") + name + "\": expected " + expected + ", found " + found.type_name());
}

}  // namespace

json ParseJson(const std::string& text, size_t maxBytes) {
  if (text.size() > maxBytes) {
    throw BadDocument("the document has " + std::to_string(text.size()) + " bytes; the limit is " +
                      std::to_string(maxBytes));
  }
  try {
    Strictness strictness;
    return json::parse(text, [&strictness](int depth, json::parse_event_t event, json& parsed) {
      return strictness(depth, event, parsed);
    });
  } catch (const json::exception& error) {
    const std::string reason = error.what();
    throw BadDocument("the document is not JSON: " + reason.substr(reason.find("] ") + 2));
  }
}

const json& GetObject(const json& document, const char* name) {
  const json& member = GetMember(document, name);
  if (!member.is_object()) FailType(name, "an object", member);
  return member;
}

std::string GetText(const json& document, const char* name) {
  const json& member = GetMember(document, name);
  if (!member.is_string()) FailType(name, "a string", member);
  return member.get<std::string>();
}

unsigned long long GetNumber(const json& document, const char* name) {
  const json& member = GetMember(document, name);
  if (!member.is_number_unsigned()) FailType(name, "a number without sign and fraction", member);
  return member.get<unsigned long long>();
}

void RequireFormat(const json& document) {
  if (!document.is_object()) throw BadDocument(std::string("expected an object, found ") + document.type_name());
  if (GetNumber(document, "format") != 1) throw BadDocument("\"format\": 1 is the only one that is known");
}

}  // namespace tavix::bridge
