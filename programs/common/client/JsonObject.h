#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tavix::programs {

// Makes an object of JSON, member by member. A place that makes one by this is a fraction as large as with a list of
// lists in braces.
//
// Threads: one.
class JsonObject {
 public:
  JsonObject() : _object(nlohmann::json::value_t::object) {}

  // Texts are UTF-8. Of a name that comes twice the last value counts.
  JsonObject& Add(const char* name, nlohmann::json value);

  template <typename Value>
  JsonObject& Add(const char* name, const Value& value) {
    if constexpr (std::is_same_v<Value, bool>) {
      return AddFlag(name, value);
    } else if constexpr (std::is_integral_v<Value> && std::is_signed_v<Value>) {
      return AddNumber(name, static_cast<std::int64_t>(value));
    } else if constexpr (std::is_integral_v<Value>) {
      return AddUnsigned(name, static_cast<std::uint64_t>(value));
    } else if constexpr (std::is_same_v<Value, std::nullptr_t>) {
      return Add(name, nlohmann::json());
    } else if constexpr (std::is_convertible_v<const Value&, std::string_view>) {
      return AddText(name, value);
    } else {
      return Add(name, nlohmann::json(value));
    }
  }

  nlohmann::json Take() { return std::move(_object); }

 private:
  JsonObject& AddFlag(const char* name, bool value);
  JsonObject& AddNumber(const char* name, std::int64_t value);
  JsonObject& AddUnsigned(const char* name, std::uint64_t value);
  JsonObject& AddText(const char* name, std::string_view value);

  nlohmann::json _object;
};

}  // namespace tavix::programs
