#pragma once

#if defined(__cplusplus) && __cplusplus < 201703L
#error "libtavix-settings needs C++17 or newer: compile with -std=c++17, or with cxx_std_17 in CMake"
#endif

// Marks what the shared library exports; everything else stays hidden.
#define TAVIX_EXPORT __attribute__((visibility("default")))

// Marks what the shared library exports for the daemon alone, which is of the same version: no promise to others, and
// no header that is installed.
#define TAVIX_DAEMON_EXPORT __attribute__((visibility("default")))

// Keeps a nested class of an exported one hidden.
#define TAVIX_LOCAL __attribute__((visibility("hidden")))

// Lets the compiler check printf-style arguments. Member functions count "this" as argument 1.
#define TAVIX_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
