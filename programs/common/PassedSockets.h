#pragma once

#include <vector>

#include "tavix/osa/Descriptor.h"

namespace tavix::programs {

// The descriptors that a service manager passed to this process, by LISTEN_PID and LISTEN_FDS as sd_listen_fds(3)
// describes them; none when it passed none. They are taken once: both variables are removed.
// Before the process has further threads.
std::vector<osa::Descriptor> TakePassedSockets();

}  // namespace tavix::programs
