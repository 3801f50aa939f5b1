#include "bench/DescriptorIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

// How many bytes came; 0 at the end, negative on failure.
ssize_t ReadSome(const osa::Descriptor& descriptor, char* buffer, size_t count) {
  ssize_t got = 0;
  do {
    got = read(descriptor.Get(), buffer, count);
  } while (got < 0 && errno == EINTR);
  return got;
}

[[noreturn]] void Fail(const char* what) {
  throw osa::Exception("Failed to %s: %s", what, std::strerror(errno));
}

}  // namespace

osa::Descriptor Checked(int descriptor, const char* what) {
  if (descriptor < 0) Fail(what);
  return osa::Descriptor(descriptor);
}

std::pair<osa::Descriptor, osa::Descriptor> MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("make a pipe");
  return {osa::Descriptor(ends[0]), osa::Descriptor(ends[1])};
}

void WriteAll(const osa::Descriptor& descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor.Get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) Fail("write");
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

bool TryReadAll(const osa::Descriptor& descriptor, char* buffer, size_t count) {
  while (count > 0) {
    const ssize_t got = ReadSome(descriptor, buffer, count);
    if (got <= 0) return false;
    buffer += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

void ReadAll(const osa::Descriptor& descriptor, char* buffer, size_t count) {
  errno = EPIPE;  // what the end of the stream is reported as
  if (!TryReadAll(descriptor, buffer, count)) Fail("read");
}

std::string ReadToEnd(const osa::Descriptor& descriptor) {
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = ReadSome(descriptor, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(got));
  return text;
}

std::string ReadLine(const osa::Descriptor& descriptor) {
  std::string line;
  for (char byte; ReadSome(descriptor, &byte, 1) == 1 && byte != '\n';) line += byte;
  return line;
}

}  // namespace tavix::bench
