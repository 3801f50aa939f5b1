#include "programs/server/ReplaceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
  ~Descriptor() {
    if (_descriptor >= 0) close(_descriptor);
  }

  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return _descriptor; }

  // The error of closing counts: some file systems report a failed write only then.
  int Close() {
    const int result = close(_descriptor);
    _descriptor = -1;
    return result;
  }

 private:
  int _descriptor;
};

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw osa::Exception("Failed to %s '%s': %s", what, path.c_str(), std::strerror(errno));
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

void WriteAll(int descriptor, const std::string& text, const std::string& path) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) Fail("write", path);
    if (written > 0) done += static_cast<size_t>(written);
  }
}

void WriteNewFile(const std::string& path, const std::string& text) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) Fail("remove", path);
  Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file.Get() < 0) Fail("create", path);
  WriteAll(file.Get(), text, path);
  if (fdatasync(file.Get()) != 0) Fail("sync", path);
  if (file.Close() != 0) Fail("close", path);
}

// Some file systems can't sync a directory and say EINVAL; their renames are as durable as they get.
void SyncDirectory(const std::string& path) {
  Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.Get() < 0) Fail("open directory", path);
  if (fsync(directory.Get()) != 0 && errno != EINVAL) Fail("sync directory", path);
}

}  // namespace

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string newPath = path + ".new";
  try {
    WriteNewFile(newPath, text);
    if (std::rename(newPath.c_str(), path.c_str()) != 0) Fail("replace", path);
  } catch (...) {
    unlink(newPath.c_str());
    throw;
  }
  SyncDirectory(DirectoryOf(path));
}

}  // namespace tavix::daemon
