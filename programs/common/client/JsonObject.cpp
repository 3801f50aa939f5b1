#include "programs/common/client/JsonObject.h"

#include <string>

namespace tavix::programs {

using nlohmann::json;

JsonObject& JsonObject::Add(const char* name, json value) {
  (*_object.get_ptr<json::object_t*>())[name] = std::move(value);
  return *this;
}

JsonObject& JsonObject::AddFlag(const char* name, bool value) {
  return Add(name, json(value));
}

JsonObject& JsonObject::AddNumber(const char* name, std::int64_t value) {
  return Add(name, json(value));
}

JsonObject& JsonObject::AddUnsigned(const char* name, std::uint64_t value) {
  return Add(name, json(value));
}

JsonObject& JsonObject::AddText(const char* name, std::string_view value) {
  return Add(name, json(std::string(value)));
}

}  // namespace tavix::programs
