#include "tests/support/Environment.h"

#include <stdlib.h>

namespace tavix::test {

namespace {

void Set(const std::string& name, const char* value) {
  if (value) {
    setenv(name.c_str(), value, 1);
  } else {
    unsetenv(name.c_str());
  }
}

}  // namespace

ScopedEnvironment::ScopedEnvironment(const std::string& name, const char* value) : _name(name) {
  if (const char* before = getenv(name.c_str())) _before = before;
  Set(name, value);
}

ScopedEnvironment::~ScopedEnvironment() {
  Set(_name, _before ? _before->c_str() : nullptr);
}

}  // namespace tavix::test
