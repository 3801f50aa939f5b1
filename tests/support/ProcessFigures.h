#pragma once

#include <sys/types.h>

#include <cstddef>

namespace tavix::test {

// What a process costs at the moment, as the kernel counts it. A process that is gone throws std::runtime_error.

// Open descriptors, and threads.
size_t CountDescriptors(pid_t process);
size_t CountThreads(pid_t process);

// How many descriptors the kernel's table has room for before it must grow.
size_t DescriptorTableSize(pid_t process);

// How often the main thread has waited for something until now.
size_t CountWaits(pid_t process);

// In bytes: the memory that is resident, and the most that ever was mapped.
size_t ResidentMemory(pid_t process);
size_t PeakAddressSpace(pid_t process);

// By how much more than "before" is resident, or ever was. Always 0 in a build with a sanitizer, which keeps what was
// freed and adds some of its own.
size_t ResidentGrowth(pid_t process, size_t before);
size_t PeakResidentGrowth(pid_t process, size_t before);

// The processor time that it has used, in seconds.
double ProcessorTime(pid_t process);

}  // namespace tavix::test
