#pragma once

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace tavix::daemon {

// Whether that is /dev/null, under whatever name.
inline bool IsNullDevice(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

}  // namespace tavix::daemon
