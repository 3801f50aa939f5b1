#include "programs/common/LinkTarget.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace fs = std::filesystem;

using programs::FollowLinks;
using programs::FollowOwnLinks;
using programs::ForeignLink;

namespace {

class LinkTarget : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return _directory.Path(name); }

  // Makes a link, and returns its path.
  std::string Link(const std::string& name, const std::string& target) const {
    fs::create_symlink(target, Path(name));
    return Path(name);
  }

  // A chain of so many links; returns the first one's path.
  std::string MakeChain(int count) const {
    for (int i = 1; i < count; ++i) Link("link" + std::to_string(i), "link" + std::to_string(i + 1));
    Link("link" + std::to_string(count), "end");
    return Path("link1");
  }

  // The user who has it then: another one than root, which a test may run as.
  uid_t GiveToAUser(const std::string& name) const {
    const uid_t user = getuid() == 0 ? 65534 : getuid();
    EXPECT_EQ(lchown(Path(name).c_str(), user, static_cast<gid_t>(-1)), 0);
    return user;
  }

  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(LinkTarget, PathThatIsNoLinkStaysAsItIs) {
  EXPECT_EQ(FollowLinks(_directory.Write("file", "")), Path("file"));
  for (const char* path : {"", "gone", "gone/file", "/", "./x"}) {
    EXPECT_EQ(FollowLinks(path), path);
    EXPECT_EQ(FollowOwnLinks(path), path);
  }
}

TEST_F(LinkTarget, EndOfAChainNeedNotExist) {
  EXPECT_EQ(FollowLinks(MakeChain(3)), Path("end"));
}

TEST_F(LinkTarget, RelativeTargetBeginsAtTheLinksDirectory) {
  fs::create_directory(Path("data"));
  EXPECT_EQ(FollowLinks(Link("data/link", "../file")), Path("data/../file"));
  EXPECT_EQ(FollowLinks(Link("data/absolute", "/gone/file")), "/gone/file");
}

TEST_F(LinkTarget, LinksOfDirectoriesStayInThePath) {
  fs::create_directory(Path("data"));
  Link("link", "data");
  EXPECT_EQ(FollowLinks(Path("link/file")), Path("link/file"));
}

TEST_F(LinkTarget, CircleIsLeftAsALink) {
  Link("b", "a");
  const std::string end = FollowLinks(Link("a", "b"));
  EXPECT_TRUE(fs::is_symlink(end)) << end;
  EXPECT_EQ(FollowOwnLinks(Path("a")), end);
}

TEST_F(LinkTarget, CircleOfDirectoriesEnds) {
  Link("x", "x/y");
  EXPECT_EQ(FollowLinks(Path("x/file")), Path("x/file"));
  EXPECT_EQ(FollowOwnLinks(Path("x/file")), Path("x/file"));
}

// The daemon keeps its lock where one way ends, and the command looks for it where the other does.
TEST_F(LinkTarget, BothWaysEndAlike) {
  const std::string chain = MakeChain(40);
  fs::create_directory(Path("data"));
  Link("d1", "data");
  Link("d2", "d1");
  const std::string paths[] = {chain,
                               Link("data/link", "../link2"),
                               Path("d2/link"),
                               Link("more", "link1"),
                               Link("through", "d2/link"),
                               "/proc/self/exe"};
  for (const std::string& path : paths) EXPECT_EQ(FollowLinks(path), FollowOwnLinks(path)) << path;
  EXPECT_EQ(FollowLinks(chain), Path("end"));
}

TEST_F(LinkTarget, LinkOfAnotherUserIsNotFollowed) {
  Link("second.ini", "third.ini");
  Link("first.ini", "second.ini");
  const uid_t user = GiveToAUser("second.ini");
  GiveToAUser("first.ini");
  EXPECT_EQ(FollowOwnLinks(Path("first.ini"), user), Path("third.ini"));
  ASSERT_EQ(lchown(Path("first.ini").c_str(), getuid(), static_cast<gid_t>(-1)), 0);
  EXPECT_THROW(FollowOwnLinks(Path("first.ini"), user + 1), ForeignLink);
}

TEST_F(LinkTarget, LinkOfAnotherUserAmongTheDirectoriesIsNotFollowed) {
  fs::create_directory(Path("data"));
  Link("link", "data");
  const uid_t user = GiveToAUser("link");
  EXPECT_EQ(FollowOwnLinks(Path("link/user.ini"), user), Path("link/user.ini"));
  EXPECT_THROW(FollowOwnLinks(Path("link/user.ini"), user + 1), ForeignLink);
}

TEST_F(LinkTarget, LinkOfAnotherUserIsFollowedByWhoeverNeedNotBeware) {
  const std::string link = Link("link", "file");
  GiveToAUser("link");
  EXPECT_EQ(FollowLinks(link), Path("file"));
}

}  // namespace tavix::test
