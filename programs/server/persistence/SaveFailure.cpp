#include "programs/server/persistence/SaveFailure.h"

#include <new>

namespace tavix::daemon {

const char* const kOutOfMemory = "Failed to save the user settings: out of memory";

const char* ReasonOf(const std::exception& exception) {
  return dynamic_cast<const std::bad_alloc*>(&exception) ? kOutOfMemory : exception.what();
}

}  // namespace tavix::daemon
