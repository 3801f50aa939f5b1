#pragma once

#include <stdexcept>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::osa {

// The error of everything here. Its text says what failed, where and why, for the person who has to act. A plain value.
class TAVIX_EXPORT Exception : public std::runtime_error {
 public:
  // Builds the text as printf does.
  explicit Exception(const char* format, ...) TAVIX_PRINTF(2, 3);

 protected:
  explicit Exception(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace tavix::osa
