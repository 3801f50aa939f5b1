#pragma once

#include <sys/types.h>

namespace tavix::bench {

// The resident memory of a process.
double ResidentMebibytes(pid_t process);

// The memory of the calling process that no file backs.
double AnonymousMebibytes();

}  // namespace tavix::bench
