#include "tests/support/StalledPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace tavix::test {

namespace {

constexpr char kFilling = '\0';

void Fill(int pipe) {
  const std::string filling(4096, kFilling);
  fcntl(pipe, F_SETFL, O_NONBLOCK);
  while (write(pipe, filling.data(), filling.size()) > 0) continue;
  fcntl(pipe, F_SETFL, 0);
}

}  // namespace

StalledPipe::StalledPipe(int descriptor) : _descriptor(descriptor), _before(fcntl(descriptor, F_DUPFD_CLOEXEC, 3)) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  _reading = osa::Descriptor(ends[0]);
  const osa::Descriptor writing(ends[1]);
  Fill(writing.Get());
  std::fflush(nullptr);
  dup2(writing.Get(), descriptor);
}

StalledPipe::~StalledPipe() {
  dup2(_before.Get(), _descriptor);
}

std::string StalledPipe::Drain() {
  std::string text;
  char part[4096];
  fcntl(_reading.Get(), F_SETFL, O_NONBLOCK);
  for (ssize_t count; (count = read(_reading.Get(), part, sizeof part)) > 0;)
    text.append(part, static_cast<size_t>(count));
  text.erase(std::remove(text.begin(), text.end(), kFilling), text.end());
  return text;
}

}  // namespace tavix::test
