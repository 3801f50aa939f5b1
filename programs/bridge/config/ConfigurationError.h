#pragma once

#include <string>

#include "tavix/osa/Exception.h"

namespace tavix::bridge {

// The configuration, or a file that it names, is wrong: the program ends with 78. A plain value.
class ConfigurationError : public osa::Exception {
 public:
  explicit ConfigurationError(const std::string& reason) : Exception(reason) {}
};

}  // namespace tavix::bridge
