#include "programs/server/store/FilePlaces.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/BackgroundCall.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

class FilePlaces : public testing::Test {
 protected:
  const TemporaryDirectory _directory;
};

}  // namespace

// A thread has a user of its own for that: root may write everywhere.
TEST_F(FilePlaces, DirectoryThatCanNotBeWrittenToIsAProblem) {
  ASSERT_EQ(chmod(_directory.GetPath().c_str(), 0555), 0);
  BackgroundCall call([&] {
    ASSERT_EQ(syscall(SYS_setresuid, -1, getuid() == 0 ? 65534 : getuid(), -1), 0);
    EXPECT_EQ(daemon::FindDirectoryProblem(_directory.Path("user.ini")),
              "directory '" + _directory.GetPath() + "': Permission denied");
  });
  call.Join();
  ASSERT_EQ(chmod(_directory.GetPath().c_str(), 0755), 0);
}

TEST_F(FilePlaces, DirectoryThatIsMissingIsAProblem) {
  EXPECT_EQ(daemon::FindDirectoryProblem(_directory.Path("gone/user.ini")),
            "directory '" + _directory.Path("gone") + "': No such file or directory");
  EXPECT_EQ(daemon::FindWhyNotKept(_directory.Path("user.ini")), "");
}

}  // namespace tavix::test
