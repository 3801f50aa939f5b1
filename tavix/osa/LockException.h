#pragma once

#include <string>

#include "tavix/osa/Exception.h"

namespace tavix::osa {

// A lock was not free in the time that the caller allowed. A plain value.
class TAVIX_EXPORT LockException : public Exception {
 public:
  enum LockError {
    kTimeout = 1,  // the time limit passed
  };

  LockException(const std::string& message, LockError error) : Exception(message), _error(error) {}

  LockError GetError() const { return _error; }

 private:
  LockError _error;
};

}  // namespace tavix::osa
