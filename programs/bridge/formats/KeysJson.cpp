#include "programs/bridge/formats/KeysJson.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"

namespace tavix::bridge {

using nlohmann::json;

json KeysToJson(const Keys& keys, const std::set<std::string>& masked) {
  json object = json::object();
  for (const auto& [key, value] : keys) {
    object[programs::NameToJson(key).get<std::string>()] =
        masked.count(key) > 0 ? programs::JsonObject().Add("masked", true).Take() : programs::ValueToJson(value);
  }
  return object;
}

std::optional<std::string> ValueFromJson(const json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (!value.is_object() || value.size() != 1) return std::nullopt;
  const auto base64 = value.find("base64");
  if (base64 == value.end() || !base64->is_string()) return std::nullopt;
  return programs::DecodeBase64(base64->get<std::string>());
}

}  // namespace tavix::bridge
