#include "programs/common/client/JsonTree.h"

#include <utility>

namespace tavix::programs {

using nlohmann::json;

bool JsonTree::key(std::string& name) {
  OnFound(_open.size());
  const auto [member, isNew] = _open.back()->get_ptr<json::object_t*>()->try_emplace(std::move(name));
  if (!isNew) OnNameAgain(member->first);
  _next = &member->second;
  return true;
}

bool JsonTree::Add(json value) {
  OnFound(_open.size());
  if (auto* const list = _open.empty() ? nullptr : _open.back()->get_ptr<json::array_t*>()) {
    list->push_back(std::move(value));
    _next = &list->back();
  } else {
    *_next = std::move(value);
  }
  return true;
}

bool JsonTree::Open(json::value_t type) {
  Add(type);
  _open.push_back(_next);
  return true;
}

bool JsonTree::Close() {
  _open.pop_back();
  return true;
}

}  // namespace tavix::programs
