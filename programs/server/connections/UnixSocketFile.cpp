#include "programs/server/connections/UnixSocketFile.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "programs/server/system/SocketName.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

osa::Descriptor MakeSocket() {
  return osa::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// The caller names it in its own error.
[[noreturn]] void Fail(const std::string& reason) {
  throw osa::Exception("%s", reason.c_str());
}

gid_t FindGroup(const std::string& name) {
  gid_t number = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data(), end, number);
  if (error == std::errc() && stop == end) return number;
  const group* const found = getgrnam(name.c_str());
  if (!found) Fail("there is no group '" + name + "'");
  return found->gr_gid;
}

}  // namespace

void UnixSocketFile::RequireGroup(const std::string& group) {
  if (!group.empty()) FindGroup(group);
}

UnixSocketFile::UnixSocketFile(const std::string& path) : _path(path), _lock(path) {}

UnixSocketFile::~UnixSocketFile() {
  // What stands there now may be another process's, which has replaced ours.
  struct stat present {};
  if (_isBound && lstat(_path.c_str(), &present) == 0 && present.st_dev == _device && present.st_ino == _inode)
    unlink(_path.c_str());
}

osa::Descriptor UnixSocketFile::Bind(mode_t mode, const std::string& group) {
  RemoveStaleSocket();
  osa::Descriptor socket = MakeSocket();
  const sockaddr_un address = AddressOf(_path);
  if (!socket || bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    Fail(std::strerror(errno));
  struct stat made {};
  if (lstat(_path.c_str(), &made) != 0) Fail(std::strerror(errno));
  _isBound = true;
  _device = made.st_dev;
  _inode = made.st_ino;
  SetPermissions(mode, group);
  return socket;
}

// The lock keeps other daemons of ours away meanwhile; what was not made by one is asked whether it lives.
void UnixSocketFile::RemoveStaleSocket() const {
  struct stat present {};
  if (lstat(_path.c_str(), &present) != 0) {
    if (errno == ENOENT) return;
    Fail(std::strerror(errno));
  }
  if (!S_ISSOCK(present.st_mode)) Fail("something that is no socket stands there");
  const osa::Descriptor probe = MakeSocket();
  const sockaddr_un address = AddressOf(_path);
  if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    Fail("it is served by " + PeerName(probe.Get()));
  if (errno != ECONNREFUSED) Fail(errno == EAGAIN ? "it is served by another process" : std::strerror(errno));
  if (unlink(_path.c_str()) != 0) Fail(std::strerror(errno));
}

void UnixSocketFile::SetPermissions(mode_t mode, const std::string& group) const {
  // The group first: else the mode would let in the members of the process's own group for a moment.
  if (!group.empty() && lchown(_path.c_str(), static_cast<uid_t>(-1), FindGroup(group)) != 0)
    Fail(std::strerror(errno));
  if (chmod(_path.c_str(), mode) != 0) Fail(std::strerror(errno));
}

}  // namespace tavix::daemon
