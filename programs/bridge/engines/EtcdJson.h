#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "programs/bridge/engines/Engine.h"

// What the JSON gateway of etcd 3 takes and gives: https://etcd.io/docs/v3.4/dev-guide/api_grpc_gateway. Keys and
// values are base64, numbers of 64 bits are strings, and members that are 0 or empty are missing.
namespace tavix::bridge::etcd {

// RFC 4648, section 4. What is no base64 decodes to what stands before it.
std::string EncodeBase64(const std::string& bytes);
std::string DecodeBase64(const std::string& text);

// An object, of whatever text: an empty one for what is none.
nlohmann::json Parse(const std::string& text);

// A member; 0, "" or an empty object when it is missing or of another type.
Version GetNumber(const nlohmann::json& object, const char* name);
std::string GetText(const nlohmann::json& object, const char* name);
nlohmann::json GetObject(const nlohmann::json& object, const char* name);
nlohmann::json GetArray(const nlohmann::json& object, const char* name);

// A key with its value.
Item GetItem(const nlohmann::json& pair);

// The members "key" and "range_end" that stand for all keys of a prefix of Engine::Follow, from the key "begin" on,
// which is the prefix or a key behind it.
nlohmann::json MakeRange(const std::string& prefix, const std::string& begin);

// A transaction that writes or removes, if the version is the expected one, and else reads what is there.
nlohmann::json MakeTransaction(const std::string& key, const std::optional<std::string>& bytes,
                               const std::optional<Version>& expected);

}  // namespace tavix::bridge::etcd
