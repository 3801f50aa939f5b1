// Loaded into a daemon before its C library, this gives it a disk that takes as long to sync as a device's flash does:
// TAVIX_BENCH_SYNC_MICROSECONDS, and nothing else.

#include <cstdlib>
#include <ctime>

extern "C" __attribute__((visibility("default"))) int fdatasync(int) {
  static const char* const text = std::getenv("TAVIX_BENCH_SYNC_MICROSECONDS");
  const long microseconds = text ? std::atol(text) : 0;
  const timespec time{microseconds / 1'000'000, microseconds % 1'000'000 * 1000};
  nanosleep(&time, nullptr);
  return 0;
}
