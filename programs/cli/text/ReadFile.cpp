#include "programs/cli/text/ReadFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "programs/cli/text/Failure.h"

namespace tavix::cli {

namespace {

// A file, or standard input, which is not closed.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
  ~Descriptor() {
    if (_descriptor > STDERR_FILENO) close(_descriptor);
  }

  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return _descriptor; }

 private:
  int _descriptor;
};

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw Failure(kExitBadInput, std::string("failed to ") + what + " '" + path + "': " + std::strerror(errno));
}

}  // namespace

std::string ReadFile(const std::string& path) {
  const Descriptor file(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.Get() < 0) Fail("open", path);
  std::string text;
  char part[64 * 1024];
  while (true) {
    const ssize_t count = read(file.Get(), part, sizeof part);
    if (count == 0) return text;
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      Fail("read", path);
    }
  }
}

}  // namespace tavix::cli
