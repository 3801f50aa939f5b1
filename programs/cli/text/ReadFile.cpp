#include "programs/cli/text/ReadFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Failure.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::programs::cli {

namespace {

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw Failure(kExitBadInput, std::string("failed to ") + what + " '" + path + "': " + std::strerror(errno));
}

// Reads to the end. path: what an error text calls it.
std::string ReadAll(int descriptor, const std::string& path) {
  std::string text;
  char part[64 * 1024];
  while (true) {
    const ssize_t count = read(descriptor, part, sizeof part);
    if (count == 0) return text;
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      Fail("read", path);
    }
  }
}

}  // namespace

std::string ReadFile(const std::string& path) {
  if (path == "-") return ReadAll(STDIN_FILENO, path);
  const osa::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) Fail("open", path);
  return ReadAll(file.Get(), path);
}

core::IniFile ReadDocument(const std::string& path) {
  return ParseDocument(ReadFile(path), path == "-" ? "standard input" : path);
}

}  // namespace tavix::programs::cli
