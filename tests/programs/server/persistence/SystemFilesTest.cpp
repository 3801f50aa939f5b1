#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/persistence/FileSystem.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

using daemon::FileContent;

namespace {

class SystemFilesReading : public testing::Test {
 protected:
  FileContent ReadPieces(const std::string& bytes, size_t maxPieces = SIZE_MAX) {
    _directory.Write("text", bytes);
    return daemon::GetSystemFiles().ReadPieces(_directory.Path("text"), [&](std::string_view piece) {
      _pieces.emplace_back(piece);
      return _pieces.size() < maxPieces;
    });
  }

  std::string AllPieces() const {
    std::string all;
    for (const std::string& piece : _pieces) all += piece;
    return all;
  }

  TemporaryDirectory _directory;
  std::vector<std::string> _pieces;
};

std::string TextOfLines(size_t bytes) {
  std::string text;
  while (text.size() < bytes) text += "line " + std::to_string(text.size()) + "\n";
  return text;
}

}  // namespace

TEST_F(SystemFilesReading, PiecesOfAFileAreWholeLinesButForTheLast) {
  const std::string text = TextOfLines(300000) + "the rest";
  const FileContent content = ReadPieces(text);
  EXPECT_TRUE(content.exists);
  EXPECT_EQ(content.problem, "");
  EXPECT_EQ(content.bytes, "");
  EXPECT_TRUE(AllPieces() == text);
  ASSERT_GT(_pieces.size(), 2u);
  for (size_t i = 0; i + 1 < _pieces.size(); ++i) EXPECT_EQ(_pieces[i].back(), '\n') << i;
}

TEST_F(SystemFilesReading, LineMayBeLongerThanAPiece) {
  const std::string text = "a\n" + std::string(200000, 'b') + "\nc\n" + std::string(70000, 'd');
  ReadPieces(text);
  EXPECT_TRUE(AllPieces() == text);
  EXPECT_THAT(_pieces, testing::Contains(testing::SizeIs(70000)));
}

TEST_F(SystemFilesReading, NoMoreIsReadOnceThatIsAskedFor) {
  const std::string text = TextOfLines(300000);
  ReadPieces(text, 1);
  ASSERT_EQ(_pieces.size(), 1u);
  EXPECT_LT(_pieces[0].size(), text.size());
}

TEST_F(SystemFilesReading, EmptyFileHasNoPiece) {
  EXPECT_TRUE(ReadPieces("").exists);
  EXPECT_THAT(_pieces, testing::IsEmpty());
}

TEST_F(SystemFilesReading, EndsOfAFileThatIsTooLargeAreOnePiece) {
  constexpr uintmax_t kTooLarge = uintmax_t{2} * 1024 * 1024 * 1024;
  _directory.Write("text", "begin");
  std::filesystem::resize_file(_directory.Path("text"), kTooLarge);
  const FileContent content = daemon::GetSystemFiles().ReadPieces(_directory.Path("text"), [&](std::string_view piece) {
    _pieces.emplace_back(piece);
    return true;
  });
  EXPECT_EQ(content.problem, "it is too large: 2147483648 bytes");
  ASSERT_EQ(_pieces.size(), 1u);
  EXPECT_EQ(_pieces[0], "begin" + std::string(2 * 64 * 1024 - 5, '\0'));
}

TEST_F(SystemFilesReading, WhatIsNoFileHasNoPieces) {
  const FileContent content =
      daemon::GetSystemFiles().ReadPieces(_directory.Path("."), [](std::string_view) -> bool { throw 1; });
  EXPECT_FALSE(content.isRegular);
  EXPECT_EQ(content.problem, "it is a directory, not a regular file");
}

}  // namespace tavix::test
