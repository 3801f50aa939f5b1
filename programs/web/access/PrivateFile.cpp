#include "programs/web/access/PrivateFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

constexpr size_t kMaxBytes = 256 * size_t{1024};

[[noreturn]] void Fail(const std::string& path, const char* reason) {
  throw osa::Exception("Failed to read '%s': %s", path.c_str(), reason);
}

// Whether the service manager keeps the file for this program alone. It lets in a user that is not the file's owner by
// a list of access, whose mask shows as the rights of the group.
bool IsCredential(const std::string& path) {
  const char* const directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (!directory || *directory == '\0') return false;
  const std::string begin = std::string(directory) + "/";
  return path.compare(0, begin.size(), begin) == 0 && path.find('/', begin.size()) == std::string::npos;
}

osa::Descriptor Open(const std::string& path, struct stat& status) {
  osa::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) Fail(path, std::strerror(errno));
  if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) Fail(path, "it is no file");
  return file;
}

std::string ReadAll(const osa::Descriptor& file, const std::string& path) {
  std::string text;
  char part[4096];
  ssize_t count = 0;
  while ((count = read(file.Get(), part, sizeof part)) > 0) {
    text.append(part, static_cast<size_t>(count));
    if (text.size() > kMaxBytes) Fail(path, "it is too large");
  }
  if (count < 0) Fail(path, std::strerror(errno));
  return text;
}

}  // namespace

std::string ReadPrivateFile(const std::string& path) {
  struct stat status {};
  const osa::Descriptor file = Open(path, status);
  if (status.st_uid != 0 && status.st_uid != geteuid()) Fail(path, "it belongs to another user");
  const mode_t foreign = IsCredential(path) ? 037 : 077;
  if ((status.st_mode & foreign) != 0) Fail(path, "others than its owner may use it; its mode has to be 0600");
  return ReadAll(file, path);
}

std::string ReadPublicFile(const std::string& path) {
  struct stat status {};
  return ReadAll(Open(path, status), path);
}

std::string MakeSecret() {
  unsigned char bytes[32];
  if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
    throw osa::Exception("Failed to get random bytes: %s", std::strerror(errno));
  std::string text;
  for (const unsigned char byte : bytes) {
    text += "0123456789abcdef"[byte >> 4U];
    text += "0123456789abcdef"[byte & 15U];
  }
  return text;
}

bool AreEqualSecrets(const std::string& left, const std::string& right) {
  if (left.size() != right.size()) return false;
  unsigned int difference = 0;
  for (size_t i = 0; i < left.size(); ++i)
    difference |= static_cast<unsigned char>(left[i]) ^ static_cast<unsigned char>(right[i]);
  return difference == 0;
}

}  // namespace tavix::web
