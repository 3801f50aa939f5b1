#pragma once

#include <optional>
#include <string>

namespace tavix::test {

// Sets or removes an environment variable for the length of a scope. For tests that have no other thread running.
class ScopedEnvironment {
 public:
  // value: null removes the variable.
  ScopedEnvironment(const std::string& name, const char* value);
  ~ScopedEnvironment();

  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const std::string _name;
  std::optional<std::string> _before;
};

}  // namespace tavix::test
