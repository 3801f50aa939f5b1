#include "tavix/c/HandleUse.h"

#include <unistd.h>

#include "tavix/c/CallResult.h"

namespace tavix::c {

HandleOwner::HandleOwner() : _process(getpid()) {}

HandleUse::HandleUse(HandleOwner& owner) : _owner(owner) {
  if (owner._process != getpid())
    throw CallFailure(TAVIX_USAGE, "the handle was made by another process, which forked this one");
  if (owner._isInUse.exchange(true, std::memory_order_acquire))
    throw CallFailure(TAVIX_BUSY, "another thread uses the handle");
}

}  // namespace tavix::c
