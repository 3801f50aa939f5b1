#include "programs/server/system/FileLock.h"

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "tests/support/BackgroundCall.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

namespace {

// Does it as a user who has no rights to the files of others. A thread has a user of its own for that.
void DoAsAnybody(const std::function<void()>& work) {
  BackgroundCall call([&] {
    setfsuid(getuid() == 0 ? 65534 : getuid());
    work();
  });
  call.Join();
}

class FileLock : public testing::Test {
 protected:
  const TemporaryDirectory _directory;
};

}  // namespace

TEST_F(FileLock, LockOfAnotherUserIsNoLockThatCanNotBeMade) {
  const std::string path = _directory.Write("user.ini.lock", "1\n");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  ASSERT_EQ(chmod(_directory.GetPath().c_str(), 0755), 0);
  DoAsAnybody([&] {
    try {
      const daemon::FileLock lock(_directory.Path("user.ini"));
      ADD_FAILURE() << "it was locked";
    } catch (const daemon::FileLock::CanNotBeMade& exception) {
      ADD_FAILURE() << exception.what();
    } catch (const osa::Exception& exception) {
      EXPECT_EQ(exception.what(), "Failed to lock '" + path + "': Permission denied");
    }
  });
}

TEST_F(FileLock, LockInADirectoryOfAnotherUserCanNotBeMade) {
  ASSERT_EQ(chmod(_directory.GetPath().c_str(), 0555), 0);
  DoAsAnybody([&] { EXPECT_THROW(daemon::FileLock(_directory.Path("user.ini")), daemon::FileLock::CanNotBeMade); });
}

TEST_F(FileLock, SecondOneIsToldWhoHasTheFirst) {
  const std::string path = _directory.Path("user.ini");
  const daemon::FileLock first(path);
  try {
    const daemon::FileLock second(path);
    ADD_FAILURE() << "it was locked";
  } catch (const daemon::FileLock::Held& held) {
    EXPECT_STREQ(held.what(), ("'" + path + "' is in use by process " + std::to_string(getpid())).c_str());
  }
}

TEST_F(FileLock, LeavesNothingBehind) {
  { const daemon::FileLock lock(_directory.Path("user.ini")); }
  EXPECT_FALSE(_directory.Has("user.ini.lock"));
  const daemon::FileLock next(_directory.Path("user.ini"));
  EXPECT_TRUE(_directory.Has("user.ini.lock"));
}

}  // namespace tavix::test
