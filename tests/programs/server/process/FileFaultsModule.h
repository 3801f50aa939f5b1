#pragma once

#include <cstdlib>

namespace tavix::test {

// What makes calls of the daemon on files fail: FileFaults. For the daemon that ServerProgram() names.
inline const char* FileFaultsModule() {
  const char* const given = std::getenv("TAVIX_TEST_FILE_FAULTS");
  return given ? given : TAVIX_FILE_FAULTS;
}

}  // namespace tavix::test
