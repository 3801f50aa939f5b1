#include "programs/server/system/LinkTarget.h"

#include <filesystem>

namespace tavix::daemon {

namespace fs = std::filesystem;

std::string FollowLinks(const std::string& path) {
  constexpr int kMostLinks = 40;  // as the kernel's own limit
  fs::path end = path;
  std::error_code error;
  for (int i = 0; i < kMostLinks; ++i) {
    const fs::path target = fs::read_symlink(end, error);
    if (error) break;
    end = end.parent_path() / target;
  }
  return end.string();
}

}  // namespace tavix::daemon
