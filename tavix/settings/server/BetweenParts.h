#pragma once

#include <functional>

namespace tavix::settings::server {

// What an operation on a store in parts asks its caller, without a lock. A plain value.
struct BetweenParts {
  std::function<bool()> isStopped;    // asked between the parts; true ends the operation by an osa::Exception
  std::function<void()> onLast = {};  // called before the last part: changes that are announced later are not seen
};

}  // namespace tavix::settings::server
