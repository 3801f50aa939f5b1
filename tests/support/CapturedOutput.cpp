#include "tests/support/CapturedOutput.h"

#include <fcntl.h>
#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace tavix::test {

namespace {

int OpenTemporaryFile() {
  std::string path = std::filesystem::temp_directory_path() / "tavix-output-XXXXXX";
  const int descriptor = mkostemp(path.data(), O_APPEND | O_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path);
  unlink(path.c_str());
  return descriptor;
}

}  // namespace

CapturedOutput::CapturedOutput(int descriptor)
    : _descriptor(descriptor), _before(fcntl(descriptor, F_DUPFD_CLOEXEC, 3)), _file(OpenTemporaryFile()) {
  std::fflush(nullptr);
  dup2(_file.Get(), _descriptor);
}

CapturedOutput::~CapturedOutput() {
  Finish();
}

std::string CapturedOutput::GetText() const {
  std::string text;
  char part[4096];
  for (ssize_t count; (count = pread(_file.Get(), part, sizeof part, static_cast<off_t>(text.size()))) > 0;)
    text.append(part, static_cast<size_t>(count));
  return text;
}

std::string CapturedOutput::Finish() {
  std::fflush(nullptr);
  if (_before.Get() >= 0) dup2(_before.Get(), _descriptor);
  _before.Reset();
  return GetText();
}

}  // namespace tavix::test
