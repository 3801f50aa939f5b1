#pragma once

#include <functional>

namespace tavix::core {

// Runs two pieces of work at the same time, the second on a thread of its own; one after the other where there is only
// one processor or no thread can be started. Returns when both have ended.
//
// Errors: passes on the first's exception, else the second's.
void RunSideBySide(const std::function<void()>& first, const std::function<void()>& second);

}  // namespace tavix::core
