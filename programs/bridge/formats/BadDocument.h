#pragma once

#include <stdexcept>
#include <string>

namespace tavix::bridge {

// A document from outside can't be taken. Its text is the reason, for people at the other end. A plain value.
class BadDocument : public std::runtime_error {
 public:
  explicit BadDocument(const std::string& reason) : std::runtime_error(reason) {}
};

}  // namespace tavix::bridge
