#pragma once

#include <sys/types.h>

#include <cstddef>

namespace tavix::test {

// What a process costs at the moment, as the kernel counts it. A process that is gone throws std::runtime_error.

// Open descriptors, and threads.
size_t CountDescriptors(pid_t process);
size_t CountThreads(pid_t process);

// In bytes: the memory that is resident, the most that ever was, and the most that was ever mapped.
size_t ResidentMemory(pid_t process);
size_t PeakResidentMemory(pid_t process);
size_t PeakAddressSpace(pid_t process);

// The processor time that it has used, in seconds.
double ProcessorTime(pid_t process);

// Whether tests and programs are built with a sanitizer that keeps freed memory and adds some of its own: then figures
// of memory say little.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsInflated = true;
#else
constexpr bool kMemoryIsInflated = false;
#endif

}  // namespace tavix::test
