#include "programs/bridge/formats/DesiredDocument.h"

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

std::string ReadName(const std::string& text) {
  const auto name = programs::NameFromJson(text);
  if (!name) throw BadDocument(programs::Join({"'", programs::SpellValue(text), "' is no base64"}));
  return *name;
}

DesiredKeys ReadKeys(const std::string& group, const json& keys) {
  if (!keys.is_object()) {
    throw BadDocument(
        programs::Join({"[", programs::SpellName(group), "]: expected an object of keys, found ", keys.type_name()}));
  }
  DesiredKeys desired;
  for (const auto& [text, value] : keys.items()) {
    const std::string key = ReadName(text);
    const auto bytes = ValueFromJson(value);
    if (!bytes && !value.is_null()) {
      throw BadDocument(
          programs::Join({programs::SpellSetting(group, key),
                          ": expected a string, null or {\"base64\": \"...\"}, found ", value.type_name()}));
    }
    if (!desired.emplace(key, bytes).second) throw BadDocument(programs::SpellSetting(group, key) + " stands twice");
  }
  return desired;
}

}  // namespace

DesiredDocument ParseDesired(const std::string& bytes, size_t maxBytes) {
  const json document = ParseJson(bytes, maxBytes);
  RequireFormat(document);
  DesiredDocument desired;
  desired.epoch = GetText(document, "epoch");
  desired.version = GetNumber(document, "version");
  for (const auto& [text, keys] : GetObject(document, "groups").items()) {
    const std::string group = ReadName(text);
    if (group.find('\n') != std::string::npos) {
      throw BadDocument(programs::Join({"[", programs::SpellName(group), "]: the name of a group holds no line feed"}));
    }
    if (!desired.groups.emplace(group, ReadKeys(group, keys)).second) {
      throw BadDocument(programs::Join({"[", programs::SpellName(group), "] stands twice"}));
    }
  }
  return desired;
}

std::map<std::string, std::uint64_t> ParseDesiredIndex(const std::string& bytes, size_t maxBytes) {
  const json document = ParseJson(bytes, maxBytes);
  RequireFormat(document);
  const json& documents = GetObject(document, "documents");
  std::map<std::string, std::uint64_t> versions;
  for (const auto& [name, version] : documents.items()) versions[name] = GetNumber(documents, name.c_str());
  return versions;
}

std::string ComposeDesired(const DesiredDocument& desired) {
  json groups = json::object();
  for (const auto& [group, keys] : desired.groups) {
    json& object = groups[programs::NameToJson(group).get<std::string>()] = json::object();
    for (const auto& [key, value] : keys) {
      object[programs::NameToJson(key).get<std::string>()] = programs::ValueToJson(value);
    }
  }
  return programs::WriteJson(programs::JsonObject()
                                 .Add("format", 1)
                                 .Add("epoch", desired.epoch)
                                 .Add("version", desired.version)
                                 .Add("groups", groups)
                                 .Take());
}

}  // namespace tavix::bridge
