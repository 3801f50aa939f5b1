#include "programs/web/interface/JsonBody.h"

#include <algorithm>
#include <set>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonParser.h"
#include "programs/web/http/Refusal.h"

namespace tavix::web {

using Kind = JsonValue::Kind;

namespace {

constexpr size_t kMaxDepth = 5;

// A value takes many times the memory of the shortest text of one: a text that is nothing but such is none of ours.
constexpr size_t kFreeValues = 1024;
constexpr size_t kMinBytesOfValue = 8;

// Builds the value from what the parser finds, which knows how numbers were written and what stands twice.
class Builder : public programs::JsonTaker {
 public:
  Builder(size_t textSize, size_t bytesDepth)
      : _bytesDepth(bytesDepth), _valuesLeft(kFreeValues + textSize / kMinBytesOfValue) {}

  JsonValue Take() { return std::move(_root); }

  bool null() override { return Add({}); }
  bool boolean(bool value) override { return AddText(Kind::kTruth, value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override { return AddText(Kind::kNumber, std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return AddText(Kind::kNumber, std::to_string(value)); }
  bool number_float(number_float_t, const std::string& text) override { return AddText(Kind::kNumber, text); }
  bool string(std::string& text) override { return AddText(Kind::kText, text); }

  bool start_object(size_t) override { return Open(Kind::kObject); }
  bool start_array(size_t) override { return Open(Kind::kList); }
  bool end_array() override { return Close(); }

  bool key(std::string& text) override {
    const std::optional<std::string> name = programs::NameFromJson(text);
    if (!name) Fail("what stands behind 'base64:' is none");
    Level& level = _levels.back();
    if (!level.names.insert(*name).second) Fail("a name stands twice");
    level.value.members.emplace_back(*name, JsonValue());
    return true;
  }

  bool end_object() override {
    JsonValue& value = _levels.back().value;
    const bool isBytes = value.members.size() == 1 && value.members[0].first == "base64" &&
                         _levels.size() >= _bytesDepth && value.members[0].second.kind == Kind::kText;
    if (isBytes) {
      const std::optional<std::string> bytes = programs::DecodeBase64(value.members[0].second.text);
      if (!bytes) Fail("'base64' holds none");
      value = {Kind::kText, *bytes, {}, {}};
    }
    return Close();
  }

 private:
  void OnBadText(const std::string& reason) override { Fail(reason); }

  struct Level {
    JsonValue value;
    std::set<std::string> names;
  };

  bool AddText(Kind kind, const std::string& text) { return Add({kind, text, {}, {}}); }

  bool Add(JsonValue value) {
    if (_valuesLeft == 0) Fail("there are too many values for so short a text");
    --_valuesLeft;
    if (_levels.empty()) {
      _root = std::move(value);
      return true;
    }
    JsonValue& parent = _levels.back().value;
    if (parent.kind == Kind::kObject) {
      parent.members.back().second = std::move(value);
    } else {
      parent.items.push_back(std::move(value));
    }
    return true;
  }

  bool Open(Kind kind) {
    if (_levels.size() >= kMaxDepth) Fail("it is nested too deeply");
    _levels.emplace_back();
    _levels.back().value.kind = kind;
    return true;
  }

  bool Close() {
    JsonValue value = std::move(_levels.back().value);
    _levels.pop_back();
    return Add(std::move(value));
  }

  [[noreturn]] void Fail(const std::string& what) {
    const std::string line = std::to_string(GetLine());
    throw Refusal(400, programs::Join({"the body, line ", line, ": ", what}), {{"line", line}});
  }

  const size_t _bytesDepth;
  size_t _valuesLeft;
  std::vector<Level> _levels;
  JsonValue _root;
};

}  // namespace

const JsonValue* JsonValue::Find(std::string_view name) const {
  for (const auto& [member, value] : members) {
    if (member == name) return &value;
  }
  return nullptr;
}

JsonValue ParseJsonBody(const std::string& text, size_t bytesDepth) {
  Builder builder(text.size(), bytesDepth);
  programs::ParseJson(text, builder);
  return builder.Take();
}

JsonValue ParseJsonObject(const std::string& text, std::initializer_list<std::string_view> known, size_t bytesDepth) {
  JsonValue value;
  value.kind = Kind::kObject;
  if (!text.empty()) value = ParseJsonBody(text, bytesDepth);
  if (value.kind != Kind::kObject) Refuse(400, "the body is no object");
  for (const auto& [name, member] : value.members) {
    if (std::find(known.begin(), known.end(), name) == known.end())
      Refuse(400, {"the body holds '", name, "', which nothing here has"});
  }
  return value;
}

bool ReadFlag(const JsonValue& body, std::string_view member) {
  const JsonValue* const value = body.Find(member);
  if (!value) return false;
  if (value->kind != Kind::kTruth) Refuse(400, {"'", member, "' is neither true nor false"});
  return value->text == "true";
}

}  // namespace tavix::web
