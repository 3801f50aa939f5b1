#include "programs/bridge/engines/EtcdJson.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "programs/bridge/engines/KeyPrefix.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/JsonTree.h"

namespace tavix::bridge::etcd {

using nlohmann::json;

namespace {

constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

json GetOf(const json& object, const char* name, json::value_t type) {
  const auto at = object.is_object() ? object.find(name) : object.end();
  return at != object.end() && at->type() == type ? *at : json(type);
}

// The first key behind all that begin so: the last byte that can grow does.
std::string FindEnd(std::string prefix) {
  while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xff) prefix.pop_back();
  if (prefix.empty()) return std::string(1, '\0');  // stands for no end
  prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
  return prefix;
}

}  // namespace

std::string EncodeBase64(const std::string& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::uint32_t bits = 0;
  unsigned held = 0;
  for (const char byte : bytes) {
    bits = bits << 8U | static_cast<unsigned char>(byte);
    for (held += 8; held >= 6; held -= 6) text += kLetters[bits >> (held - 6) & 63U];
  }
  if (held > 0) text += kLetters[bits << (6 - held) & 63U];
  text.append((4 - text.size() % 4) % 4, '=');
  return text;
}

std::string DecodeBase64(const std::string& text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  unsigned held = 0;
  for (const char letter : text) {
    const char* const at = letter == '\0' ? nullptr : std::strchr(kLetters, letter);
    if (at == nullptr) break;
    bits = bits << 6U | static_cast<std::uint32_t>(at - kLetters);
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>(bits >> held & 0xffU);
  }
  return bytes;
}

json Parse(const std::string& text) {
  programs::JsonTree tree;
  if (!programs::ParseJson(text, tree)) return json::object();
  json parsed = tree.TakeDocument();
  return parsed.is_object() ? parsed : json::object();
}

Version GetNumber(const json& object, const char* name) {
  const auto at = object.is_object() ? object.find(name) : object.end();
  if (at == object.end()) return 0;
  if (at->is_number_unsigned()) return at->get<Version>();
  return at->is_string() ? std::strtoull(at->get_ref<const std::string&>().c_str(), nullptr, 10) : 0;
}

std::string GetText(const json& object, const char* name) {
  return GetOf(object, name, json::value_t::string).get<std::string>();
}

json GetObject(const json& object, const char* name) {
  return GetOf(object, name, json::value_t::object);
}

json GetArray(const json& object, const char* name) {
  return GetOf(object, name, json::value_t::array);
}

Item GetItem(const json& pair) {
  return {DecodeBase64(GetText(pair, "key")), DecodeBase64(GetText(pair, "value")), GetNumber(pair, "mod_revision")};
}

json MakeRange(const std::string& prefix, const std::string& begin) {
  json range = programs::JsonObject().Add("key", EncodeBase64(begin)).Take();
  if (IsTree(prefix)) range["range_end"] = EncodeBase64(FindEnd(prefix));
  return range;
}

json MakeTransaction(const std::string& key, const std::optional<std::string>& bytes,
                     const std::optional<Version>& expected) {
  const json name = programs::JsonObject().Add("key", EncodeBase64(key)).Take();
  json write;
  if (bytes) {
    write = programs::JsonObject()
                .Add("request_put",
                     programs::JsonObject().Add("key", EncodeBase64(key)).Add("value", EncodeBase64(*bytes)).Take())
                .Take();
  } else {
    write = programs::JsonObject().Add("request_delete_range", name).Take();
  }
  json transaction = programs::JsonObject().Add("success", json::array({write})).Take();
  if (!expected) return transaction;
  transaction["compare"] = json::array({programs::JsonObject()
                                            .Add("key", EncodeBase64(key))
                                            .Add("target", "MOD")
                                            .Add("result", "EQUAL")
                                            .Add("mod_revision", std::to_string(*expected))
                                            .Take()});
  transaction["failure"] = json::array({programs::JsonObject().Add("request_range", name).Take()});
  return transaction;
}

}  // namespace tavix::bridge::etcd
