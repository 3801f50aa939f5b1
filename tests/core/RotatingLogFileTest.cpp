#include "tavix/core/RotatingLogFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/Logger.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"
#include "tests/support/FullDevice.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::osa::Descriptor;
using tavix::osa::Exception;
using tavix::test::FullDevice;
using tavix::test::TemporaryDirectory;
using testing::HasSubstr;
using File = tavix::core::RotatingLogFile;

class RotatingLogFile : public testing::Test {
 protected:
  std::unique_ptr<File> Open(const std::string& name, File::Limits limits = {}) {
    return std::make_unique<File>(_directory.GetPath(), name, limits);
  }

  void ExpectRefused(const std::string& name, const std::string& reason) {
    const std::string whole = "Failed to open log file '" + name + "': " + reason;
    EXPECT_THAT([&] { Open(name); }, testing::ThrowsMessage<Exception>(whole));
  }

  TemporaryDirectory _directory;
};

bool Write(File& file, const std::string& line) {
  return file.Write(tavix::core::kLogError, line, "not for a file");
}

File::Limits Limits(size_t bytes, int kept) {
  File::Limits limits;
  limits.bytes = bytes;
  limits.kept = kept;
  return limits;
}

TEST_F(RotatingLogFile, MakesTheFileAndWritesLinesToIt) {
  const auto file = Open("tavix.log");
  EXPECT_EQ(_directory.Read("tavix.log"), "");
  Write(*file, "first\n");
  Write(*file, "second\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "first\nsecond\n");
}

TEST_F(RotatingLogFile, AddsToAFileThatExists) {
  _directory.Write("tavix.log", "before\n");
  Write(*Open("tavix.log"), "after\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "before\nafter\n");
}

TEST_F(RotatingLogFile, TheFileIsNotForEverybody) {
  const mode_t before = umask(0);
  Open("tavix.log");
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(_directory.Path("tavix.log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0640u);
}

TEST_F(RotatingLogFile, KeepsMoreThanOneFile) {
  const auto first = Open("first.log");
  const auto second = Open("second.log");
  Write(*first, "1\n");
  Write(*second, "2\n");
  EXPECT_EQ(_directory.Read("first.log") + _directory.Read("second.log"), "1\n2\n");
}

TEST_F(RotatingLogFile, LeavesNoDescriptorOpenAndNoneToOtherPrograms) {
  const int before = Descriptor(dup(STDERR_FILENO)).Get();
  {
    const auto file = Open("tavix.log");
    for (int descriptor = before; descriptor < before + 2; ++descriptor)
      EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
  }
  std::filesystem::create_directories(_directory.Path("a"));
  ExpectRefused("a", "Is a directory");
  ExpectRefused(_directory.Path("missing/tavix.log"), "No such file or directory");
  EXPECT_THROW(Open("missing/tavix.log"), Exception);
  EXPECT_EQ(Descriptor(dup(STDERR_FILENO)).Get(), before);
}

TEST_F(RotatingLogFile, APathThatBeginsWithTheDirectoryIsTheSameFile) {
  Write(*Open(_directory.Path("tavix.log")), "line\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "line\n");
}

TEST_F(RotatingLogFile, TheFileMayLieInADirectoryBelow) {
  std::filesystem::create_directories(_directory.Path("a/b"));
  Write(*Open(_directory.Path("a/b/tavix.log")), "line\n");
  EXPECT_EQ(_directory.Read("a/b/tavix.log"), "line\n");
}

TEST_F(RotatingLogFile, APathThatDoesNotBeginWithTheDirectoryIsRefused) {
  for (const std::string& path :
       {std::string("/etc/tavix.log"), std::string("below/tavix.log"), std::string("../tavix.log"),
        std::string("./tavix.log"), _directory.GetPath() + "2/tavix.log", "/" + _directory.Path("tavix.log")}) {
    const std::string reason = "Log file '" + path + "' is not below '" + _directory.GetPath() + "'";
    EXPECT_THAT([&] { Open(path); }, testing::ThrowsMessage<Exception>(reason));
  }
}

TEST_F(RotatingLogFile, APathThatIsNotPlainIsRefused) {
  std::filesystem::create_directories(_directory.Path("a"));
  for (const std::string& path :
       {_directory.Path("../tavix.log"), _directory.Path("a/../tavix.log"), _directory.Path("./tavix.log"),
        _directory.Path("a//tavix.log"), _directory.Path("/tavix.log"), _directory.Path("a/"), _directory.Path(""),
        _directory.Path("a/.."), std::string("."), std::string(".."), std::string()}) {
    const std::string reason = "Log file '" + path + "' is no plain path below '" + _directory.GetPath() + "'";
    EXPECT_THAT([&] { Open(path); }, testing::ThrowsMessage<Exception>(reason));
  }
}

TEST_F(RotatingLogFile, ANameWithANulByteIsRefused) {
  EXPECT_THROW(Open(std::string("tavix.log\0x", 11)), Exception);
  EXPECT_FALSE(_directory.Has("tavix.log"));
}

TEST_F(RotatingLogFile, AMissingDirectoryIsRefused) {
  ExpectRefused(_directory.Path("a/tavix.log"), "No such file or directory");
  EXPECT_THROW(File(_directory.Path("missing"), "tavix.log"), Exception);
}

TEST_F(RotatingLogFile, ALinkIsNotFollowedToAFile) {
  const std::string target = _directory.Write("target", "precious");
  ASSERT_EQ(symlink(target.c_str(), _directory.Path("tavix.log").c_str()), 0);
  ExpectRefused("tavix.log", "Too many levels of symbolic links");
  EXPECT_EQ(_directory.Read("target"), "precious");
}

TEST_F(RotatingLogFile, ALinkToNothingMakesNothing) {
  ASSERT_EQ(symlink(_directory.Path("target").c_str(), _directory.Path("tavix.log").c_str()), 0);
  EXPECT_THROW(Open("tavix.log"), Exception);
  EXPECT_FALSE(_directory.Has("target"));
}

TEST_F(RotatingLogFile, ALinkIsNotFollowedToADirectory) {
  const TemporaryDirectory elsewhere;
  ASSERT_EQ(symlink(elsewhere.GetPath().c_str(), _directory.Path("a").c_str()), 0);
  ExpectRefused(_directory.Path("a/tavix.log"), "Not a directory");
  EXPECT_FALSE(elsewhere.Has("tavix.log"));
}

TEST_F(RotatingLogFile, ADirectoryIsRefused) {
  std::filesystem::create_directories(_directory.Path("tavix.log"));
  ExpectRefused("tavix.log", "Is a directory");
}

TEST_F(RotatingLogFile, APipeIsRefusedWithOrWithoutAReader) {
  ASSERT_EQ(mkfifo(_directory.Path("pipe").c_str(), 0600), 0);
  ExpectRefused("pipe", "No such device or address");
  const Descriptor reader(open(_directory.Path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ExpectRefused("pipe", "not a regular file");
}

TEST_F(RotatingLogFile, AFileThatWouldGrowTooLargeIsRotated) {
  const auto file = Open("tavix.log", Limits(10, 2));
  Write(*file, "1234\n");
  Write(*file, "5678\n");
  EXPECT_FALSE(_directory.Has("tavix.log.1")) << "ten bytes are allowed";
  Write(*file, "9\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "9\n");
  EXPECT_EQ(_directory.Read("tavix.log.1"), "1234\n5678\n");
}

TEST_F(RotatingLogFile, OldFilesMoveUpAndTheOldestIsDropped) {
  const auto file = Open("tavix.log", Limits(4, 2));
  for (const char* line : {"a\n", "b\n", "c\n", "d\n", "e\n", "f\n", "g\n"}) Write(*file, line);
  EXPECT_EQ(_directory.Read("tavix.log"), "g\n");
  EXPECT_EQ(_directory.Read("tavix.log.1"), "e\nf\n");
  EXPECT_EQ(_directory.Read("tavix.log.2"), "c\nd\n");
  EXPECT_FALSE(_directory.Has("tavix.log.3"));
}

TEST_F(RotatingLogFile, ALineLongerThanTheLimitGetsAFileOfItsOwn) {
  const auto file = Open("tavix.log", Limits(4, 3));
  Write(*file, "longer than four\n");
  EXPECT_FALSE(_directory.Has("tavix.log.1")) << "an empty file is not worth keeping";
  Write(*file, "also longer\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "also longer\n");
  EXPECT_EQ(_directory.Read("tavix.log.1"), "longer than four\n");
}

TEST_F(RotatingLogFile, AFileThatIsLargeAlreadyIsRotatedAtTheFirstLine) {
  _directory.Write("tavix.log", std::string(100, 'x'));
  Write(*Open("tavix.log", Limits(10, 1)), "new\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "new\n");
  EXPECT_EQ(_directory.Read("tavix.log.1"), std::string(100, 'x'));
}

TEST_F(RotatingLogFile, IsRotatedAtOneMebibyteWithThreeOldFilesUnlessToldOtherwise) {
  EXPECT_EQ(File::Limits().bytes, 1024u * 1024);
  EXPECT_EQ(File::Limits().kept, 3);
}

TEST_F(RotatingLogFile, RotationReplacesLinksInsteadOfFollowingThem) {
  const std::string target = _directory.Write("target", "precious");
  ASSERT_EQ(symlink(target.c_str(), _directory.Path("tavix.log.1").c_str()), 0);
  const auto file = Open("tavix.log", Limits(2, 1));
  Write(*file, "a\n");
  Write(*file, "b\n");
  EXPECT_EQ(_directory.Read("target"), "precious");
  EXPECT_EQ(_directory.Read("tavix.log.1"), "a\n");
}

TEST_F(RotatingLogFile, AFileThatWasMovedAwayIsMadeAgain) {
  const auto file = Open("tavix.log");
  Write(*file, "before\n");
  std::filesystem::rename(_directory.Path("tavix.log"), _directory.Path("moved"));
  EXPECT_TRUE(Write(*file, "after\n"));
  EXPECT_EQ(_directory.Read("moved"), "before\n");
  EXPECT_EQ(_directory.Read("tavix.log"), "after\n");
}

TEST_F(RotatingLogFile, AFileThatWasRemovedIsMadeAgain) {
  const auto file = Open("tavix.log");
  Write(*file, "before\n");
  std::filesystem::remove(_directory.Path("tavix.log"));
  EXPECT_TRUE(Write(*file, "after\n"));
  EXPECT_EQ(_directory.Read("tavix.log"), "after\n");
}

TEST_F(RotatingLogFile, AFileThatWasReplacedIsLetGo) {
  const auto file = Open("tavix.log");
  std::filesystem::rename(_directory.Path("tavix.log"), _directory.Path("moved"));
  _directory.Write("tavix.log", "another's\n");
  EXPECT_TRUE(Write(*file, "after\n"));
  EXPECT_EQ(_directory.Read("moved"), "");
  EXPECT_EQ(_directory.Read("tavix.log"), "another's\nafter\n");
}

TEST_F(RotatingLogFile, AFileThatBecameALinkTakesNoLines) {
  const auto file = Open("tavix.log");
  Write(*file, "before\n");
  std::filesystem::rename(_directory.Path("tavix.log"), _directory.Path("moved"));
  std::filesystem::create_symlink(_directory.Path("moved"), _directory.Path("tavix.log"));
  EXPECT_FALSE(Write(*file, "dropped\n"));
  EXPECT_EQ(_directory.Read("moved"), "before\n");
  std::filesystem::remove(_directory.Path("tavix.log"));
  EXPECT_TRUE(Write(*file, "after\n"));
  EXPECT_EQ(_directory.Read("tavix.log"), "after\n");
}

TEST_F(RotatingLogFile, AFullDeviceCostsLinesOnly) {
  const auto file = Open("tavix.log");
  Write(*file, "before\n");
  {
    const FullDevice full(7);
    EXPECT_FALSE(Write(*file, "dropped\n"));
  }
  EXPECT_TRUE(Write(*file, "after\n"));
  EXPECT_EQ(_directory.Read("tavix.log"), "before\nafter\n");
}

TEST_F(RotatingLogFile, ALineThatDoesNotFitIsNotTorn) {
  const auto file = Open("tavix.log");
  Write(*file, "before\n");
  {
    const FullDevice full(10);
    EXPECT_FALSE(Write(*file, "dropped\n"));
  }
  EXPECT_TRUE(Write(*file, "after\n"));
  EXPECT_EQ(_directory.Read("tavix.log"), "before\nafter\n");
}

}  // namespace
