#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tavix::web {

// What became of one group. A plain value.
struct GroupChangeEvent {
  std::string group;
  bool isGone = false;
  std::string version;                   // empty of a group that is gone
  std::string newValues;                 // an object of JSON; empty of a group that is gone
  std::optional<std::string> oldValues;  // the same of before; none: not known. "null": there was no such group

  size_t CountBytes() const {
    return sizeof *this + group.size() + newValues.size() + (oldValues ? oldValues->size() : 0);
  }
};

using ChangePointer = std::shared_ptr<const GroupChangeEvent>;

}  // namespace tavix::web
