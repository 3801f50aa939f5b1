// Loaded into a process before its C library, this makes calls on files below one directory fail as a test wants it:
// FileFaultControl.h. The calls are those that change something there, or make a change durable. It moves the wall
// clock as well, which stamps these files.

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tests/faults/FileFaultControl.h"

namespace tavix::test {

namespace {

constexpr int kChanging = O_CREAT | O_WRONLY | O_RDWR | O_TRUNC;

// The next definition of that name: the C library's, or a sanitizer's around it.
template <class Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

FileFaultControl* MapControl() {
  const char* const path = getenv(FileFaultControl::kPathVariable);
  if (!path) return nullptr;
  const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
  if (file < 0) return nullptr;
  void* const memory =
      mmap(nullptr, sizeof(FileFaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
  syscall(SYS_close, file);
  return memory == MAP_FAILED ? nullptr : static_cast<FileFaultControl*>(memory);
}

// Null: the process is left alone.
FileFaultControl* Control() {
  static FileFaultControl* const control = MapControl();
  return control;
}

bool IsWatched(const char* path) {
  static const char* const directory = getenv(FileFaultControl::kDirectoryVariable);
  static const size_t size = directory ? strlen(directory) : 0;
  return Control() && size > 0 && strncmp(path, directory, size) == 0 && (path[size] == '/' || path[size] == '\0');
}

// An open file's path; empty: it has none.
struct OpenPath {
  explicit OpenPath(int descriptor) {
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const int before = errno;
    const ssize_t size = readlink(link, text, sizeof text - 1);
    text[size > 0 ? size : 0] = '\0';
    errno = before;
  }

  char text[PATH_MAX];
};

// What this call is to fail with; 0: it is not.
int TakeFault() {
  FileFaultControl& control = *Control();
  const uint64_t number = control.calls.fetch_add(1) + 1;
  if (number == control.killsAt) syscall(SYS_kill, syscall(SYS_getpid), SIGKILL);
  return number >= control.failsFrom && number <= control.failsTo ? control.error.load() : 0;
}

bool Fails(int fault) {
  if (fault <= 0) return false;
  errno = fault;
  return true;
}

bool Fails(const char* path) {
  return IsWatched(path) && Fails(TakeFault());
}

bool FailsOn(int descriptor) {
  return Control() && Fails(OpenPath(descriptor).text);
}

// How much of a write of "count" bytes is to be done; -1: it fails.
ssize_t CountToWrite(int descriptor, size_t count) {
  const int fault = Control() && IsWatched(OpenPath(descriptor).text) ? TakeFault() : 0;
  if (Fails(fault)) return -1;
  return static_cast<ssize_t>(fault == FileFaultControl::kShortWrite && count > 1 ? count / 2 : count);
}

bool IsFile(int descriptor) {
  struct stat status {};
  const int before = errno;
  const bool isFile = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
  errno = before;
  return isFile;
}

// holds: a futex, not 0 while calls are held. held: counts them.
void StandWhile(std::atomic<uint32_t>& holds, std::atomic<uint32_t>& held, const char* path) {
  if (holds == 0 || !strstr(path, Control()->heldName)) return;
  ++held;
  while (const uint32_t value = holds) syscall(SYS_futex, &holds, FUTEX_WAIT, value, nullptr);
  --held;
}

void StandInSync(int descriptor) {
  if (!Control()) return;
  const OpenPath path(descriptor);
  if (!IsWatched(path.text)) return;
  Control()->syncingThread = static_cast<int32_t>(syscall(SYS_gettid));
  ++Control()->syncs;
  StandWhile(Control()->holdsSyncs, Control()->heldSyncs, path.text);
}

bool SkipsSync(int descriptor) {
  return Control() && Control()->skipsSyncs != 0 && IsWatched(OpenPath(descriptor).text);
}

void StandInWrite(int descriptor) {
  if (!Control() || Control()->holdsWrites == 0) return;
  const OpenPath path(descriptor);
  if (IsWatched(path.text)) StandWhile(Control()->holdsWrites, Control()->heldWrites, path.text);
}

mode_t ModeOf(int flags, va_list arguments) {
  return flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
}

int Open(const char* name, const char* path, int flags, mode_t mode) {
  if ((flags & kChanging) && Fails(path)) return -1;
  return Next<int(const char*, int, ...)>(name)(path, flags, mode);
}

int OpenAt(const char* name, int directory, const char* path, int flags, mode_t mode) {
  if ((flags & kChanging) && Fails(path)) return -1;
  return Next<int(int, const char*, int, ...)>(name)(directory, path, flags, mode);
}

// Offset: off_t or off64_t, as "name" takes it; they differ on 32 bits.
template <class Offset>
ssize_t WriteAt(const char* name, int descriptor, const void* bytes, size_t count, Offset offset) {
  StandInWrite(descriptor);
  const ssize_t toWrite = CountToWrite(descriptor, count);
  if (toWrite < 0) return -1;
  using Call = ssize_t(int, const void*, size_t, Offset);
  return Next<Call>(name)(descriptor, bytes, static_cast<size_t>(toWrite), offset);
}

template <class Offset>
int Allocate(const char* name, int descriptor, int mode, Offset offset, Offset size) {
  StandInWrite(descriptor);
  if (FailsOn(descriptor)) return -1;
  return Next<int(int, int, Offset, Offset)>(name)(descriptor, mode, offset, size);
}

// Of the wall clock, however exact.
int64_t ShiftOf(clockid_t clock) {
  const bool isWallClock = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  return isWallClock && Control() ? Control()->clockShift.load() : 0;
}

}  // namespace

}  // namespace tavix::test

#define TAVIX_REPLACES extern "C" __attribute__((visibility("default")))

TAVIX_REPLACES int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = tavix::test::ModeOf(flags, arguments);
  va_end(arguments);
  return tavix::test::Open("open", path, flags, mode);
}

TAVIX_REPLACES int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = tavix::test::ModeOf(flags, arguments);
  va_end(arguments);
  return tavix::test::Open("open64", path, flags, mode);
}

TAVIX_REPLACES int openat64(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = tavix::test::ModeOf(flags, arguments);
  va_end(arguments);
  return tavix::test::OpenAt("openat64", directory, path, flags, mode);
}

TAVIX_REPLACES int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = tavix::test::ModeOf(flags, arguments);
  va_end(arguments);
  return tavix::test::OpenAt("openat", directory, path, flags, mode);
}

TAVIX_REPLACES ssize_t write(int descriptor, const void* bytes, size_t count) {
  const ssize_t toWrite = tavix::test::CountToWrite(descriptor, count);
  if (toWrite < 0) return -1;
  using Call = ssize_t(int, const void*, size_t);
  return tavix::test::Next<Call>("write")(descriptor, bytes, static_cast<size_t>(toWrite));
}

TAVIX_REPLACES ssize_t pwrite(int descriptor, const void* bytes, size_t count, off_t offset) {
  return tavix::test::WriteAt("pwrite", descriptor, bytes, count, offset);
}

TAVIX_REPLACES ssize_t pwrite64(int descriptor, const void* bytes, size_t count, off64_t offset) {
  return tavix::test::WriteAt("pwrite64", descriptor, bytes, count, offset);
}

TAVIX_REPLACES int fallocate(int descriptor, int mode, off_t offset, off_t size) {
  return tavix::test::Allocate("fallocate", descriptor, mode, offset, size);
}

TAVIX_REPLACES int fallocate64(int descriptor, int mode, off64_t offset, off64_t size) {
  return tavix::test::Allocate("fallocate64", descriptor, mode, offset, size);
}

TAVIX_REPLACES int fdatasync(int descriptor) {
  tavix::test::StandInSync(descriptor);
  if (tavix::test::FailsOn(descriptor)) return -1;
  if (tavix::test::SkipsSync(descriptor)) return 0;
  return tavix::test::Next<int(int)>("fdatasync")(descriptor);
}

TAVIX_REPLACES int fsync(int descriptor) {
  if (tavix::test::IsFile(descriptor)) tavix::test::StandInSync(descriptor);
  if (tavix::test::FailsOn(descriptor)) return -1;
  return tavix::test::Next<int(int)>("fsync")(descriptor);
}

TAVIX_REPLACES int ftruncate(int descriptor, off_t size) noexcept {
  if (tavix::test::FailsOn(descriptor)) return -1;
  return tavix::test::Next<int(int, off_t)>("ftruncate")(descriptor, size);
}

TAVIX_REPLACES int ftruncate64(int descriptor, off64_t size) noexcept {
  if (tavix::test::FailsOn(descriptor)) return -1;
  return tavix::test::Next<int(int, off64_t)>("ftruncate64")(descriptor, size);
}

TAVIX_REPLACES int futimens(int descriptor, const struct timespec times[2]) noexcept {
  if (tavix::test::FailsOn(descriptor)) return -1;
  return tavix::test::Next<int(int, const struct timespec*)>("futimens")(descriptor, times);
}

// What it is called on 32 bits, with times after 2038.
TAVIX_REPLACES int __futimens64(int descriptor, const void* times) noexcept {
  if (tavix::test::FailsOn(descriptor)) return -1;
  return tavix::test::Next<int(int, const void*)>("__futimens64")(descriptor, times);
}

TAVIX_REPLACES int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  const int result = tavix::test::Next<int(clockid_t, struct timespec*)>("clock_gettime")(clock, time);
  if (result == 0) time->tv_sec += static_cast<time_t>(tavix::test::ShiftOf(clock));
  return result;
}

// What it is called on 32 bits, with times after 2038: the seconds come first, in 64 bits.
TAVIX_REPLACES int __clock_gettime64(clockid_t clock, void* time) noexcept {
  const int result = tavix::test::Next<int(clockid_t, void*)>("__clock_gettime64")(clock, time);
  if (result == 0) *static_cast<int64_t*>(time) += tavix::test::ShiftOf(clock);
  return result;
}

TAVIX_REPLACES int gettimeofday(struct timeval* time, void* zone) noexcept {
  const int result = tavix::test::Next<int(struct timeval*, void*)>("gettimeofday")(time, zone);
  if (result == 0) time->tv_sec += static_cast<time_t>(tavix::test::ShiftOf(CLOCK_REALTIME));
  return result;
}

TAVIX_REPLACES time_t time(time_t* result) noexcept {
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result) *result = now.tv_sec;
  return now.tv_sec;
}

TAVIX_REPLACES int rename(const char* from, const char* to) noexcept {
  if (tavix::test::Fails(to)) return -1;
  return tavix::test::Next<int(const char*, const char*)>("rename")(from, to);
}

TAVIX_REPLACES int link(const char* from, const char* to) noexcept {
  if (tavix::test::Fails(to)) return -1;
  return tavix::test::Next<int(const char*, const char*)>("link")(from, to);
}

TAVIX_REPLACES int unlink(const char* path) noexcept {
  if (tavix::test::Fails(path)) return -1;
  return tavix::test::Next<int(const char*)>("unlink")(path);
}

// A name server that does not answer.
TAVIX_REPLACES int getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                               struct addrinfo** addresses) {
  tavix::test::FileFaultControl* const control = tavix::test::Control();
  if (control && host) tavix::test::StandWhile(control->holdsLookups, control->heldLookups, host);
  return tavix::test::Next<int(const char*, const char*, const struct addrinfo*, struct addrinfo**)>("getaddrinfo")(
      host, service, hints, addresses);
}
