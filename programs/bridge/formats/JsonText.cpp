#include "programs/bridge/formats/JsonText.h"

#include <nlohmann/json.hpp>

#include "programs/bridge/formats/BadDocument.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/JsonTree.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using nlohmann::json;

namespace {

constexpr size_t kMaxDepth = 8;

// Refuses what no document has, before it is kept.
class StrictTree : public programs::JsonTree {
 private:
  void OnFound(size_t depth) override {
    if (depth > kMaxDepth)
      throw BadDocument(programs::Join({"the JSON text nests deeper than ", std::to_string(kMaxDepth), " levels"}));
  }

  void OnNameAgain(const std::string& name) override {
    throw BadDocument(programs::Join({"the name '", programs::SpellValue(name), "' stands twice in an object"}));
  }

  void OnBadText(const std::string& reason) override { throw BadDocument("the document is not JSON: " + reason); }
};

const json& GetMember(const json& document, const char* name) {
  const auto member = document.find(name);
  if (member == document.end()) throw BadDocument(programs::Join({"\"", name, "\" is missing"}));
  return *member;
}

[[noreturn]] void FailType(const char* name, const char* expected, const json& found) {
  throw BadDocument(programs::Join({"\"", name, "\": expected ", expected, ", found ", found.type_name()}));
}

}  // namespace

json ParseJson(const std::string& text, size_t maxBytes) {
  if (text.size() > maxBytes) {
    throw BadDocument(programs::Join(
        {"the document has ", std::to_string(text.size()), " bytes; the limit is ", std::to_string(maxBytes)}));
  }
  StrictTree tree;
  programs::ParseJson(text, tree);
  return tree.TakeDocument();
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
