#include "programs/common/LinkTarget.h"

#include <sys/stat.h>

#include <climits>
#include <optional>

namespace tavix::programs {

namespace {

constexpr int kMaxLinks = 40;  // as the kernel's own limit

bool IsSame(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_dev == other.st_dev && one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
         one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

// The target of a link; empty: it is none.
std::string ReadLink(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t size = readlink(path.c_str(), target, sizeof target);
  return size < 0 ? "" : std::string(target, static_cast<size_t>(size));
}

// The same, and the owner is that of the link whose target is returned.
std::string ReadOwnLink(const std::string& path, uid_t user) {
  struct stat before {};
  if (lstat(path.c_str(), &before) != 0 || !S_ISLNK(before.st_mode)) return "";
  if (before.st_uid != 0 && before.st_uid != user)
    throw ForeignLink("the link '" + path + "' belongs to user " + std::to_string(before.st_uid) +
                      ", who is neither root nor the daemon's user");
  std::string target = ReadLink(path);
  struct stat after {};
  if (target.empty() || lstat(path.c_str(), &after) != 0 || !IsSame(before, after))
    throw ForeignLink("the link '" + path + "' was replaced while it was read");
  return target;
}

std::string DirectoryPartOf(const std::string& path) {
  return path.substr(0, path.rfind('/') + 1);  // nothing when there is no slash
}

std::string Resolve(const std::string& path, const std::string& target) {
  return target.front() == '/' ? target : DirectoryPartOf(path) + target;
}

class LinkWalk {
 public:
  // user: whose links may be followed, beside root's; none: everybody's.
  explicit LinkWalk(std::optional<uid_t> user) : _user(user) {}

  std::string Follow(std::string path) {
    for (int links = 0;; ++links) {
      if (_user) CheckDirectories(path);
      const std::string target = links < kMaxLinks ? Read(path) : "";
      if (target.empty()) return path;
      path = Resolve(path, target);
    }
  }

 private:
  // Those among them that are links lead over others.
  void CheckDirectories(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
      const std::string directory = path.substr(0, slash);
      const std::string target = _directoryLinks < kMaxLinks ? Read(directory) : "";
      if (target.empty()) continue;
      ++_directoryLinks;
      Follow(Resolve(directory, target));
    }
  }

  // Empty: it is no link.
  std::string Read(const std::string& path) const { return _user ? ReadOwnLink(path, *_user) : ReadLink(path); }

  const std::optional<uid_t> _user;
  int _directoryLinks = 0;  // that were followed; those of the path itself count apart, so that both ways end alike
};

}  // namespace

std::string FollowLinks(const std::string& path) {
  return LinkWalk(std::nullopt).Follow(path);
}

std::string FollowOwnLinks(const std::string& path, uid_t user) {
  return LinkWalk(user).Follow(path);
}

}  // namespace tavix::programs
