#include "programs/server/persistence/LongLine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using daemon::HasLongLine;
using daemon::kLongLine;

namespace {

const std::string kLine(kLongLine - 2, 'x');

bool FileOf(const std::string& text) {
  const TemporaryDirectory directory;
  return daemon::FileHasLongLine(directory.Write("settings.ini", text));
}

}  // namespace

TEST(LongLine, IsFoundWhereverItIs) {
  const std::string tooLong = kLine + "xx";
  for (const std::string& text : {tooLong, tooLong + "\nx\n", "x\n" + tooLong, kLine + "\n" + tooLong + "\n" + kLine})
    EXPECT_TRUE(HasLongLine(text));
}

TEST(LongLine, IsNoneWhereLinesAreShorter) {
  std::string many;
  for (int i = 0; i < 5; ++i) many += kLine + "\n" + "x\n";
  for (const std::string& text : {std::string(), std::string("\n"), kLine, kLine + "x", many})
    EXPECT_FALSE(HasLongLine(text)) << text.size();
}

TEST(LongLine, IsFoundInAFileWhereverItIs) {
  const std::string longLine(kLongLine, 'x');
  for (size_t before : {0, 1, 100, 16 * 4096 - 5000, 16 * 4096 - 4096, 16 * 4096 - 1, 16 * 4096, 3 * 16 * 4096 - 7}) {
    std::string text;
    while (text.size() < before) text += std::string(std::min<size_t>(before - text.size(), 80) - 1, 'y') + "\n";
    EXPECT_TRUE(FileOf(text + longLine + "\nz\n")) << before;
    EXPECT_TRUE(FileOf(text + longLine)) << before;
  }
}

TEST(LongLine, IsNoneInAFileWhereLinesAreShorter) {
  std::string many;
  for (int i = 0; i < 50; ++i) many += kLine + "\n" + std::string(static_cast<size_t>(i), 'x') + "\n";
  for (const std::string& text : {std::string(), std::string("\n"), kLine, kLine + "x", many})
    EXPECT_FALSE(FileOf(text)) << text.size();
}

TEST(LongLine, MayBeInAFileThatCanNotBeRead) {
  EXPECT_TRUE(daemon::FileHasLongLine("/nonexistent/settings.ini"));
}

}  // namespace tavix::test
