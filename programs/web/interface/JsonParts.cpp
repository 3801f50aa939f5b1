#include "programs/web/interface/JsonParts.h"

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/web/http/Refusal.h"

namespace tavix::web {

using nlohmann::json;

void JsonParts::Append(const std::string& part) {
  _size.Add(part.size() + 1);
  if (!_isFirst) _text += ',';
  _isFirst = false;
  _text += part;
}

void JsonParts::Add(const json& item) {
  Append(programs::Compact(item));
}

void JsonParts::Add(const std::string& name, const json& value) {
  Append(programs::Join({Quoted(name), ":", programs::Compact(value)}));
}

std::string JsonParts::Finish(const std::string& end) {
  return std::move(_text) + end;
}

}  // namespace tavix::web
