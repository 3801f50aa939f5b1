#include "programs/bridge/formats/SharedGroup.h"

#include <nlohmann/json.hpp>

#include "programs/bridge/formats/JsonText.h"
#include "programs/bridge/formats/KeysJson.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using nlohmann::json;

namespace {

bool IsMasked(const json& value) {
  return value.is_object() && value.size() == 1 && value.contains("masked");
}

}  // namespace

std::string ComposeSharedGroup(const Keys& keys, const std::set<std::string>& masked) {
  return json{{"format", 1}, {"keys", KeysToJson(keys, masked)}}.dump();
}

Keys ParseSharedGroup(const std::string& bytes, size_t maxBytes) {
  const json document = ParseJson(bytes, maxBytes);
  RequireFormat(document);
  Keys keys;
  for (const auto& [text, value] : GetObject(document, "keys").items()) {
    if (IsMasked(value)) continue;
    const auto key = programs::NameFromJson(text);
    const auto bytesOfValue = ValueFromJson(value);
    if (!key) throw BadDocument("'" + programs::SpellValue(text) + "' is no base64");
    if (!bytesOfValue) {
      throw BadDocument("'" + programs::SpellKey(*key) + "': expected a string or {\"base64\": \"...\"}, found " +
                        value.type_name());
    }
    if (!keys.emplace(*key, *bytesOfValue).second) {
      throw BadDocument("'" + programs::SpellKey(*key) + "' stands twice");
    }
  }
  return keys;
}

}  // namespace tavix::bridge
