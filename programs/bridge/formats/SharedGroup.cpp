#include "programs/bridge/formats/SharedGroup.h"

#include <nlohmann/json.hpp>

#include "programs/bridge/formats/JsonText.h"
#include "programs/bridge/formats/KeysJson.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/JsonWriter.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using nlohmann::json;

namespace {

bool IsMasked(const json& value) {
  return value.is_object() && value.size() == 1 && value.contains("masked");
}

}  // namespace

std::string ComposeSharedGroup(const Keys& keys, const std::set<std::string>& masked) {
  Keys all = keys;
  for (const std::string& key : masked) all[key];
  return programs::WriteJson(programs::JsonObject().Add("format", 1).Add("keys", KeysToJson(all, masked)).Take());
}

SharedGroup ParseSharedGroup(const std::string& bytes, size_t maxBytes) {
  const json document = ParseJson(bytes, maxBytes);
  RequireFormat(document);
  SharedGroup group;
  for (const auto& [text, value] : GetObject(document, "keys").items()) {
    const auto key = programs::NameFromJson(text);
    if (!key) throw BadDocument(programs::Join({"'", programs::SpellValue(text), "' is no base64"}));
    const auto bytesOfValue = IsMasked(value) ? std::string() : ValueFromJson(value);
    if (!bytesOfValue) {
      throw BadDocument(programs::Join(
          {"'", programs::SpellKey(*key), "': expected a string or {\"base64\": \"...\"}, found ", value.type_name()}));
    }
    const bool isNew = group.keys.count(*key) + group.masked.count(*key) == 0;
    if (!isNew) throw BadDocument(programs::Join({"'", programs::SpellKey(*key), "' stands twice"}));
    if (IsMasked(value)) {
      group.masked.insert(*key);
    } else {
      group.keys.emplace(*key, *bytesOfValue);
    }
  }
  return group;
}

}  // namespace tavix::bridge
