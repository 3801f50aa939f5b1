#include "programs/server/system/LinkTarget.h"

#include <sys/stat.h>

#include <climits>

namespace tavix::daemon {

namespace {

constexpr int kMaxLinks = 40;  // as the kernel's own limit

bool IsSame(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_dev == other.st_dev && one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
         one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

// The target of a link; empty: it is none. The owner is that of the link whose target is returned.
std::string ReadLink(const std::string& path, uid_t user) {
  struct stat before {};
  if (lstat(path.c_str(), &before) != 0 || !S_ISLNK(before.st_mode)) return "";
  if (before.st_uid != 0 && before.st_uid != user)
    throw ForeignLink("the link '" + path + "' belongs to user " + std::to_string(before.st_uid) +
                      ", who is neither root nor the daemon's user");
  char target[PATH_MAX];
  const ssize_t size = readlink(path.c_str(), target, sizeof target);
  struct stat after {};
  if (size < 0 || lstat(path.c_str(), &after) != 0 || !IsSame(before, after))
    throw ForeignLink("the link '" + path + "' was replaced while it was read");
  return std::string(target, static_cast<size_t>(size));
}

std::string DirectoryPartOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);  // nothing when there is no slash
}

std::string Resolve(const std::string& path, const std::string& target) {
  return target.front() == '/' ? target : DirectoryPartOf(path) + target;
}

class LinkWalk {
 public:
  explicit LinkWalk(uid_t user) : _user(user) {}

  std::string Follow(std::string path) {
    CheckDirectories(path);
    for (std::string target = Read(path); !target.empty(); target = Read(path)) {
      path = Resolve(path, target);
      CheckDirectories(path);
    }
    return path;
  }

 private:
  // Those among them that are links lead over others.
  void CheckDirectories(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      const std::string directory = path.substr(0, slash);
      const std::string target = Read(directory);
      if (!target.empty()) Follow(Resolve(directory, target));
    }
  }

  // Empty: it is no link, or there were too many.
  std::string Read(const std::string& path) {
    std::string target = _links < kMaxLinks ? ReadLink(path, _user) : "";
    if (!target.empty()) ++_links;
    return target;
  }

  const uid_t _user;
  int _links = 0;
};

}  // namespace

std::string FollowLinks(const std::string& path, uid_t user) {
  return LinkWalk(user).Follow(path);
}

}  // namespace tavix::daemon
