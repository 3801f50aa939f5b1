// A body of JSON is read or refused. What is read is JSON for another parser, too, and says the same when it is written
// anew.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "programs/common/client/Json.h"
#include "programs/web/http/Refusal.h"
#include "programs/web/interface/JsonBody.h"
#include "programs/web/interface/Trials.h"

using namespace tavix;
using namespace tavix::web;
using Kind = JsonValue::Kind;

namespace {

constexpr size_t kDepths[] = {1, 2, 4};  // from which on an object can stand for bytes
constexpr size_t kFewValues = 1024;      // that a text may have however short it is

void Require(bool condition) {
  if (!condition) std::abort();
}

// Returns whether it was read. Errors are refusals, and nothing else.
template <class Read>
bool ReadOrRefuse(Read read) {
  try {
    read();
    return true;
  } catch (const Refusal& refusal) {
    Require(refusal.GetStatus() == 400 && !ToResponse(refusal).body.empty());
    return false;
  }
}

template <class Parts, class Write>
std::string Join(char begin, const Parts& parts, char end, Write write) {
  std::string text(1, begin);
  for (const auto& part : parts) text += (text.size() > 1 ? "," : "") + write(part);
  return text + end;
}

std::string ToText(const JsonValue& value) {
  switch (value.kind) {
    case Kind::kText:
      return programs::ValueToJson(value.text).dump();
    case Kind::kNumber:
    case Kind::kTruth:
      return value.text;
    case Kind::kObject:
      return Join('{', value.members, '}', [](const auto& member) {
        return programs::NameToJson(member.first).dump() + ":" + ToText(member.second);
      });
    case Kind::kList:
      return Join('[', value.items, ']', ToText);
    case Kind::kNull:
      break;
  }
  return "null";
}

size_t CountValues(const JsonValue& value) {
  size_t count = 1;
  for (const auto& [name, member] : value.members) count += CountValues(member);
  for (const JsonValue& item : value.items) count += CountValues(item);
  return count;
}

void ReadWhole(const std::string& text, size_t depth) {
  const JsonValue value = ParseJsonBody(text, depth);
  Require(nlohmann::json::accept(text));
  const std::string again = ToText(value);
  if (CountValues(value) <= kFewValues) Require(ToText(ParseJsonBody(again, depth)) == again);
}

// As the requests of the interface read their members.
void ReadMembers(const std::string& text) {
  const JsonValue body = ParseJsonObject(text, {"set", "confirm", "dryRun"}, 4);
  ReadOrRefuse([&] { ReadFlag(body, "dryRun"); });
  ReadOrRefuse([&] { Trial::Read(body); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const size_t depth : kDepths) ReadOrRefuse([&] { ReadWhole(text, depth); });
  ReadOrRefuse([&] { ReadMembers(text); });
  return 0;
}
